#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>

#include "cli/config.h"
#include "formats/epconf.h"
#include "formats/modclass.h"
#include "formats_test_util.h"

namespace {

namespace fs = std::filesystem;

std::string in_data_dir(const std::string& name) {
    char path[8192];
    data_path(path, sizeof path, name.c_str());
    return path;
}

// The data directory beside the test executable, with a player table and
// empty player files written by each test.
struct Epconf : testing::Test {
    void SetUp() override {
        fs::remove_all(in_data_dir(""));
        fs::create_directories(in_data_dir("players"));
    }
    void TearDown() override { fs::remove_all(in_data_dir("")); }

    static void table(const std::string& text) {
        ASSERT_TRUE(write_whole(in_data_dir("eagleplayer.conf"), Bytes(text.begin(), text.end())));
    }
    static void players(std::initializer_list<const char*> names) {
        for (const char* n : names)
            ASSERT_TRUE(write_whole(in_data_dir(std::string("players/") + n), hex("00 00 03 F3")));
    }
    static void remove_player(const char* name) {
        fs::remove(in_data_dir(std::string("players/") + name));
    }
    // The chosen player's name, "" when none.
    static std::string identify(const char* module, const Bytes& data = {}) {
        char out[8192];
        int found = epconf_identify(module, data.empty() ? nullptr : data.data(),
                                    uint32_t(data.size()), out, sizeof out);
        std::string prefix = in_data_dir("players/");
        if (!found) return "";
        EXPECT_EQ(std::string(out).rfind(prefix, 0), 0u) << out;
        return std::string(out).substr(prefix.size());
    }
};

// A 15-instrument Soundtracker module: sample 1 holds 100 words, patterns
// 0..highest follow the header at 600, the first order names the highest.
struct Mod15 {
    Bytes b;
    explicit Mod15(int highest = 1) : b(600 + size_t(highest + 1) * 1024 + 200, 0) {
        put_be16(b, 20 + 22, 100);
        b[20 + 25] = 64;
        b[470] = 1;
        b[471] = 100;
        b[472] = uint8_t(highest);
    }
    Mod15& sample(int s, uint32_t length, uint8_t finetune, uint8_t volume, uint32_t repeat_start,
                  uint32_t repeat_length) {
        put_sample(b, s, length, finetune, volume, repeat_start, repeat_length);
        return *this;
    }
    Mod15& name(int s, const char* text) {
        std::memcpy(b.data() + 20 + 30 * (s - 1), text, std::strlen(text));
        return *this;
    }
    Mod15& note(int pattern, int row, int effect, uint8_t param) {
        size_t at = 600 + size_t(pattern) * 1024 + size_t(row) * 16;
        b[at + 2] = uint8_t(effect);
        b[at + 3] = param;
        return *this;
    }
    Mod15& byte(size_t at, uint8_t v) {
        b[at] = v;
        return *this;
    }
    Mod15& grow(size_t n) {
        b.resize(b.size() + n);
        return *this;
    }
};

// An old-layout TFMX song: the offsets at 464 are left 0.
Bytes tfmx(const char* magic, size_t len = 0x1000) {
    Bytes b(len, 0);
    std::memcpy(b.data(), magic, std::strlen(magic));
    return b;
}

}  // namespace

TEST_F(Epconf, NamesAgainstTheTable) {
    players({"A", "B", "C", "Missing-not"});
    table("# A prefixes=xyz\n"
          "\n"
          "A prefixes=mod,MED\tepopt=x\r\n"
          "B prefixes=mod,xyz prefixes=abc\n"
          "C   prefixes=b.mod,tiny," + std::string(62, 'k') + "," + std::string(63, 'l') + "\n"
          "Missing prefixes=zzz,abc\n"
          "Missing-not prefixes=zzz\n" +
          std::string(255, 'P') + " prefixes=long\n");
    struct Case {
        std::string module;
        const char* player;
    };
    const Case cases[] = {
        {"mod.song", "A"},             // A and B tie: the earlier line
        {"/some/dir/song.mod", "A"},   // extension form
        {"mod.xyz", "A"},              // A by prefix (1003) over B by extension (3)
        {"xyz.mod", "B"},              // B by prefix beats A by extension
        {"SONG.MED", "A"},             // keys and names compared in lower case
        {"dir\\MED.Song", "A"},        // either separator before the name
        {"a.b.mod", "C"},              // a longer key wins
        {"mod", ""},                   // a key equal to the name never matches
        {".mod", ""},                  // nor one only a dot shorter
        {"x.tiny", "C"},
        {"abc.song", ""},              // only the first prefixes= token counts
        {"zzz.song", "Missing-not"},   // a line whose player is absent is skipped
        {"x." + std::string(62, 'k'), "C"},
        {"x." + std::string(63, 'l'), ""},  // keys of 63 characters are dropped
        {"x.long", ""},                // player names over 254 characters: line ignored
        {"x.unknown", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.module);
        EXPECT_EQ(identify(c.module.c_str()), c.player);
    }
}

TEST_F(Epconf, NoTableNoPlayer) {
    players({"A"});
    EXPECT_EQ(identify("mod.song"), "");
    char out[8] = "x";
    table("A prefixes=mod\n");
    // A result that does not fit is no result.
    EXPECT_EQ(epconf_identify("mod.song", nullptr, 0, out, sizeof out), 0);
}

TEST_F(Epconf, SoundtrackerFifteenInstruments) {
    players({"ProTracker", "Soundtracker-IV", "UltimateSoundtracker", "AudioSculpture"});
    table("ProTracker prefixes=mod\n");
    const std::string pt = "ProTracker", st4 = "Soundtracker-IV", ust = "UltimateSoundtracker";
    struct Case {
        const char* what;
        Mod15 mod;
        const std::string& player;
    };
    const Case cases[] = {
        {"no effects, no loops", Mod15(), ust},
        {"effect 5", Mod15().note(0, 3, 5, 0x11), st4},
        {"effect 8", Mod15().note(0, 3, 8, 0x11), st4},
        {"effect 5 in the highest pattern is not scanned", Mod15().note(1, 3, 5, 0x11), ust},
        {"effect C", Mod15().note(0, 3, 0xC, 0x20), pt},
        {"effect D without parameter", Mod15().note(0, 3, 0xD, 0), pt},
        {"effect D with parameter", Mod15().note(0, 3, 0xD, 1), st4},
        {"filter command E0", Mod15().note(0, 3, 0xE, 0x01), pt},
        {"slide of 30", Mod15().note(0, 3, 2, 30), pt},
        {"slide of 31", Mod15().note(0, 3, 1, 31), ust},
        {"slide of 40 despite a loop", Mod15().note(0, 3, 1, 40).sample(1, 100, 0, 64, 150, 30), ust},
        {"three arpeggios", Mod15().note(0, 1, 0, 0x37).note(0, 2, 0, 0x37).note(0, 3, 0, 0x37), pt},
        {"two arpeggios", Mod15().note(0, 1, 0, 0x37).note(0, 2, 0, 0x37), ust},
        {"loop past the sample end", Mod15().sample(1, 100, 0, 64, 150, 30), pt},
        {"loop to the sample end", Mod15().sample(1, 100, 0, 64, 140, 30), ust},
        {"empty sample looping at 64K", Mod15().sample(3, 0, 0, 0, 0xFFFE, 1), pt},
        {"disk names, tempo byte 120", Mod15().name(2, "ST-01:drum").byte(471, 120), pt},
        {"disk names in lower case", Mod15().name(2, "st-02:bass").byte(471, 120), pt},
        {"disk names, other tempo byte", Mod15().name(2, "ST-01:drum"), ust},
        {"tempo byte 120 without disk names", Mod15().byte(471, 120), ust},
        // These are not 15-instrument modules; without a 31-instrument tag
        // the AudioSculpture test keeps the table's choice.
        {"one byte too long", Mod15().grow(1), pt},
        {"song length 0", Mod15().byte(470, 0), pt},
        {"song length 129", Mod15().byte(470, 129), pt},
        {"byte 499 is 1", Mod15().byte(499, 1), pt},
        {"highest pattern 64", Mod15(64), pt},
        {"finetune with volume above 64", Mod15().sample(4, 0, 1, 65, 0, 0), pt},
        {"volume above 64 alone", Mod15().sample(4, 0, 0, 65, 0, 0), ust},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(identify("tune.mod", c.mod.b), c.player);
    }
    // Only names ending in .mod are looked into, and only chosen players that exist.
    EXPECT_EQ(identify("mod.tune", Mod15().b), pt);
    EXPECT_EQ(identify("TUNE.MOD", Mod15().b), ust);
    remove_player("UltimateSoundtracker");
    EXPECT_EQ(identify("tune.mod", Mod15().b), pt);
}

TEST_F(Epconf, AudioSculpture) {
    players({"ProTracker", "AudioSculpture", "UltimateSoundtracker"});
    table("ProTracker prefixes=mod\n");
    Mod31 sculpture("FLT4", 2);
    sculpture.sample(1, 100, 0, 64, 0, 1).sample(2, 0, 0, 40, 0, 1);
    Mod31 startrekker("FLT4", 2);
    startrekker.sample(1, 100, 0, 64, 0, 1);
    Mod31 short_sculpture = sculpture;
    short_sculpture.b.resize(1500);
    Mod31 tiny = sculpture;
    tiny.b.resize(1083);
    struct Case {
        const char* what;
        const char* name;
        const Bytes& mod;
        const char* player;
    };
    const Case cases[] = {
        {"FLT4 with a sounding empty sample", "song.mod", sculpture.b, "AudioSculpture"},
        {"shorter than two patterns", "song.mod", short_sculpture.b, "AudioSculpture"},
        {"too short to hold a tag", "song.mod", tiny.b, "ProTracker"},
        {"Startrekker", "song.mod", startrekker.b, "ProTracker"},
        {"prefix names are not looked into", "mod.song", sculpture.b, "ProTracker"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(identify(c.name, c.mod), c.player);
    }
    remove_player("AudioSculpture");
    EXPECT_EQ(identify("song.mod", sculpture.b), "ProTracker");
}

TEST_F(Epconf, TfmxVariants) {
    players({"TFMX", "TFMX-Pro", "TFMX-7V", "TFMX-TFHD", "TFMX-Pro-TFHD", "TFMX-7V-TFHD", "Other"});
    table("TFMX prefixes=mdat,tfhd\nOther prefixes=other\n");
    auto with = [](Bytes b, std::initializer_list<std::pair<size_t, uint32_t>> words16) {
        for (auto [at, v] : words16) put_be16(b, at, v);
        return b;
    };
    auto offsets = [](Bytes b, uint32_t song, uint32_t patterns, uint32_t macros) {
        put_be32(b, 464, song);
        put_be32(b, 468, patterns);
        put_be32(b, 472, macros);
        return b;
    };
    Bytes old = tfmx("TFMX ");  // blank at 4: no Pro text signature
    // Old layout: trackstep at 0x800, ending at the first pattern (pointer at 0x400).
    Bytes old_tracks = with(old, {{0x400, 0}, {0x402, 0x0840}});
    Bytes tfhd = tfmx("TFHD");
    struct Case {
        const char* what;
        Bytes mod;
        const char* player;
    };
    const Case cases[] = {
        {"TFHD 1", with(tfhd, {{8, 0x0100}}), "TFMX-TFHD"},
        {"TFHD 2", with(tfhd, {{8, 0x0200}}), "TFMX-Pro-TFHD"},
        {"TFHD 3", with(tfhd, {{8, 0x0300}}), "TFMX-7V-TFHD"},
        {"TFHD 4", with(tfhd, {{8, 0x0400}}), "TFMX"},
        {"old song", old, "TFMX"},
        {"shorter than 520 bytes", with(tfmx("TFMX-SONG ", 519), {{14, 0x0E60}}), "TFMX"},
        {"not a TFMX header", tfmx("TFMX-X"), "TFMX"},
        {"lower-case tfmxsong", tfmx("tfmxsong"), "TFMX-Pro"},
        {"TFMX_SONG with blank", tfmx("TFMX_SONG "), "TFMX-Pro"},
        {"TFMX_SONG without blank", tfmx("TFMX_SONGX"), "TFMX"},
        {"Pro text signature", tfmx("TFMX-SONG "), "TFMX-Pro"},
        {"text 'by' at 10", with(tfmx("TFMX-SONG by"), {}), "TFMX"},
        {"text '0=' at 16", with(tfmx("TFMX-SONG "), {{16, 0x303D}}), "TFMX"},
        {"text ' x' at 16", with(tfmx("TFMX-SONG "), {{16, 0x2078}}), "TFMX-Pro"},
        {"text '  ' at 16", with(tfmx("TFMX-SONG "), {{16, 0x2020}}), "TFMX"},
        {"text '(Empty)' at 16", [] {
             Bytes b = tfmx("TFMX-SONG ");
             std::memcpy(b.data() + 16, "(Empty)", 7);
             return b;
         }(), "TFMX"},
        {"text '(Song)' at 16", [] {
             Bytes b = tfmx("TFMX-SONG ");
             std::memcpy(b.data() + 16, "(Song)", 6);
             return b;
         }(), "TFMX-Pro"},
        {"word 0E60", with(old, {{14, 0x0E60}}), "TFMX-Pro"},
        {"word 0860 with its mark", with(tfmx("TFMX ", 4646), {{14, 0x0860}, {4644, 0x090C}}),
         "TFMX-Pro"},
        {"word 0860 without", with(tfmx("TFMX ", 4646), {{14, 0x0860}}), "TFMX"},
        {"word 0B20 with its mark", with(tfmx("TFMX ", 5122), {{14, 0x0B20}, {5120, 0x8C26}}),
         "TFMX-Pro"},
        {"word 0920 with its mark", with(tfmx("TFMX ", 3978), {{14, 0x0920}, {3876, 0x9305}}),
         "TFMX-Pro"},
        {"word 0920, module too short", with(tfmx("TFMX ", 3977), {{14, 0x0920}, {3876, 0x9305}}),
         "TFMX"},
        {"old layout, seven voices", with(old_tracks, {{0x820, 0xEFFE}, {0x822, 3}}), "TFMX-7V"},
        {"old layout, other command", with(old_tracks, {{0x820, 0xEFFE}, {0x822, 2}}), "TFMX"},
        {"old layout, off the line grid", with(old_tracks, {{0x824, 0xEFFE}, {0x826, 3}}), "TFMX"},
        {"old layout, past the trackstep", with(old_tracks, {{0x840, 0xEFFE}, {0x842, 3}}), "TFMX"},
        {"new layout, seven voices",
         with(offsets(old, 0x800, 0x900, 0xA00), {{0x9F0, 0xEFFE}, {0x9F2, 3}}), "TFMX-7V"},
        {"new layout, command among the macros",
         with(offsets(old, 0x800, 0x900, 0xA00), {{0xA00, 0xEFFE}, {0xA02, 3}}), "TFMX-Pro"},
        {"new layout, byte-swapped offsets",
         with(offsets(old, 0x00080000, 0x00090000, 0x000A0000), {{0x810, 0xEFFE}, {0x812, 3}}),
         "TFMX-7V"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(identify("mdat.song", c.mod), c.player);
    }
    // Only a TFMX choice is refined, and only to players that exist.
    EXPECT_EQ(identify("other.song", with(tfhd, {{8, 0x0200}})), "Other");
    remove_player("TFMX-Pro-TFHD");
    EXPECT_EQ(identify("tfhd.song", with(tfhd, {{8, 0x0200}})), "TFMX");
}

TEST_F(Epconf, PlayerOptions) {
    players({"ProTracker"});
    table("ProTracker prefixes=mod epopt=nothing-without-a-match\n"
          "ProTracker prefixes=mod,m15 epopt=type:pt30\n"
          "ProTracker prefixes=xyz\n"
          "Other prefixes=abc epopt=other\n"
          "Multi prefixes=abc epopt=first prefixes=def epopt=last\n"
          "Long prefixes=lng epopt=" + std::string(300, 'o') + "\n"
          "protracker prefixes=lower epopt=wrong-case\n");
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    std::string pt = in_data_dir("players/ProTracker");
    Mod31 mk = Mod31("M.K.", 1).empty_samples(1).sample(1, 1000, 0, 64, 0, 1);  // class 5
    Mod31 flt4 = Mod31("FLT4", 1).empty_samples(1).sample(1, 1000, 0, 64, 0, 1);
    Bytes tag_only(mk.b.begin(), mk.b.begin() + 1083);
    Bytes st15(2848, 0);
    struct Case {
        const char* player;
        const char* module;
        const Bytes* data;
        std::string epopt;
    };
    // "ProTracker prefixes=mod epopt=..." comes first but the matching test
    // needs the extension in its list: it has "mod", so it is the one taken.
    const Case cases[] = {
        {pt.c_str(), "dir/song.m15", &mk.b, "type:nt20"},
        {pt.c_str(), "SONG.M15", &flt4.b, "type:flt4"},
        {pt.c_str(), "song.m15", &tag_only, "type:st20"},
        {pt.c_str(), "song.m15", &st15, "type:st20"},
        {pt.c_str(), "song.mod", &mk.b, "nothing-without-a-match"},
        {pt.c_str(), "mod.song", &mk.b, ""},     // the extension is "song"
        {pt.c_str(), "song", &mk.b, ""},         // no extension
        {pt.c_str(), "song.", &mk.b, ""},
        {pt.c_str(), "song.xyz", &mk.b, ""},     // no epopt= on that line
        {"players/Other", "a.abc", &mk.b, "other"},
        {"C:\\players\\Other", "a.abc", &mk.b, "other"},
        {"Multi", "a.def", &mk.b, "last"},       // the last of each token
        {"Multi", "a.abc", &mk.b, ""},
        {"Long", "a.lng", &mk.b, std::string(255, 'o')},
        {"ProTracker", "a.lower", &mk.b, ""},    // player names are case-sensitive
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.player) + " " + c.module);
        std::strcpy(m.epopt, "stale");
        epconf_resolve_epopt(m, c.player, c.module, c.data->data(), uint32_t(c.data->size()));
        EXPECT_EQ(std::string(m.epopt), c.epopt);
    }
    fs::remove(in_data_dir("eagleplayer.conf"));
    std::strcpy(m.epopt, "stale");
    epconf_resolve_epopt(m, pt.c_str(), "song.m15", mk.b.data(), uint32_t(mk.b.size()));
    EXPECT_STREQ(m.epopt, "");
}

TEST_F(Epconf, RealModules) {
    Bytes probe;
    REQUIRE_TESTDATA("mods/CV_BOSS.MOD", probe);
    players({"ProTracker", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture"});
    table("ProTracker prefixes=mod epopt=type:pt30\n");
    struct Case {
        const char* file;
        const char* epopt;
    };
    // All go through the AudioSculpture test (31-instrument tags, or the
    // TakeTracker files' length between 1084 and 2651) and keep ProTracker.
    const Case cases[] = {
        {"CV_BOSS.MOD", "type:comp"}, {"CV_TECH.MOD", "type:comp"},
        {"openmpt-test.mod", "type:comp"}, {"TDZ1.MOD", "type:st20"},
        {"TDZ2.MOD", "type:st20"},         {"TDZ3.MOD", "type:st20"},
    };
    MachinePtr mp = make_machine();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        std::string path = testdata_path(std::string("mods/") + c.file);
        uint32_t len = 0;
        uint8_t* data = load_file(path.c_str(), len);
        ASSERT_NE(data, nullptr);
        char player[8192];
        ASSERT_EQ(epconf_identify(path.c_str(), data, len, player, sizeof player), 1);
        EXPECT_EQ(std::string(player), in_data_dir("players/ProTracker"));
        epconf_resolve_epopt(*mp, player, path.c_str(), data, len);
        EXPECT_STREQ(mp->epopt, c.epopt);
        std::free(data);
    }
}

TEST_F(Epconf, RandomContentsOfEveryLength) {
    players({"ProTracker", "Soundtracker-IV", "UltimateSoundtracker", "AudioSculpture", "TFMX",
             "TFMX-Pro", "TFMX-7V", "TFMX-TFHD", "TFMX-Pro-TFHD", "TFMX-7V-TFHD"});
    table("ProTracker prefixes=mod\nTFMX prefixes=mdat\n");
    const char* magics[] = {"TFMX-SONG ", "TFMX ", "TFHD", "tfmxsong", ""};
    std::mt19937 rng(5);
    for (int round = 0; round < 400; round++) {
        uint32_t len = round < 40 ? uint32_t(round * 70) : rng() % 6000;
        // Exact-size heap copy: any read past the module is caught.
        std::unique_ptr<uint8_t[]> data(new uint8_t[len + 1]);
        for (uint32_t i = 0; i < len; i++) data[i] = uint8_t(rng() % 4 ? 0 : rng());
        const char* magic = magics[round % 5];
        if (len >= 16) std::memcpy(data.get(), magic, std::strlen(magic));
        if (len >= 1084 && round % 3 == 0) std::memcpy(data.get() + 1080, round % 2 ? "M.K." : "FLT4", 4);
        if (len >= 476 && round % 4 == 0) {  // TFMX offsets near or past the end
            for (int i = 0; i < 3; i++) {
                uint32_t v = len - rng() % 64;
                if (rng() % 2) v = v >> 24 | (v >> 8 & 0xFF00) | (v << 8 & 0xFF0000) | v << 24;
                for (int k = 0; k < 4; k++) data[464 + 4 * i + k] = uint8_t(v >> (24 - 8 * k));
            }
        }
        char out[8192];
        for (const char* name : {"song.mod", "mdat.song"})
            EXPECT_EQ(epconf_identify(name, data.get(), len, out, sizeof out), 1);
    }
}
