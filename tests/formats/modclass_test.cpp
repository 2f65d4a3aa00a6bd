#include <gtest/gtest.h>

#include "formats/epconf.h"
#include "formats/modclass.h"
#include "formats_test_util.h"

namespace {

// The later trackers' conventions: a used sample with a one-word loop, empty
// samples with repeat length 1.
Mod31 later(const char* tag = "M.K.", int patterns = 2) {
    Mod31 m(tag, patterns);
    m.empty_samples(1).sample(1, 1000, 0, 64, 0, 1);
    return m;
}
// The earlier ones: no loop is a zero repeat length everywhere.
Mod31 earlier(const char* tag = "M.K.", int patterns = 2) {
    Mod31 m(tag, patterns);
    m.empty_samples(0).sample(1, 1000, 0, 64, 0, 0);
    return m;
}

}  // namespace

TEST(ModClass, TagsOf31InstrumentModules) {
    struct Case {
        const char* tag;
        int is31;
    };
    const Case cases[] = {
        {"M.K.", 1}, {"M!K!", 1}, {"M&K!", 1}, {"N.T.", 1}, {"FLT4", 1}, {"FLT8", 1},
        {"FA04", 1}, {"FA08", 1}, {"EXO4", 1}, {"EXO8", 1}, {"CD81", 1}, {"OCTA", 1},
        {"OKTA", 1}, {"6CHN", 1}, {"8CHN", 1}, {"16CH", 1}, {"32CH", 1}, {".M.K", 0},
        {"TDZ1", 0}, {"FLT5", 0}, {"m.k.", 0}, {"CHN6", 0}, {"\0\0\0\0", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tag);
        Mod31 m(c.tag, 0);
        EXPECT_EQ(mod_tag_is_31(m.b.data()), c.is31);
    }
}

TEST(ModClass, Classes) {
    struct Case {
        const char* what;
        Mod31 mod;
        int cls;
    };
    Mod31 flt4 = later("FLT4");
    Mod31 flt4_silent = later("FLT4");
    flt4_silent.sample(5, 0, 0, 0, 0, 1);
    const Case cases[] = {
        {"M&K!", later("M&K!"), 4},
        {"N.T.", earlier("N.T."), 5},
        {"8CHN", later("8CHN"), 7},
        {"16CH", later("16CH"), 7},
        {"FLT4 with silent empty samples", earlier("FLT4").sample(7, 0, 0, 0, 0, 0), 2},
        {"FLT4 with an empty sample that has a volume",
         earlier("FLT4").sample(7, 0, 0, 12, 0, 0), 3},
        {"FLT4: sample 31 is not looked at", earlier("FLT4").sample(31, 0, 0, 12, 0, 0), 2},
        {"EXO4 like FLT4", earlier("EXO4").sample(2, 0, 0, 1, 0, 0), 3},
        {"FLT8", later("FLT8"), 0},
        {"M!K!", earlier("M!K!"), 0},
        {"OKTA", earlier("OKTA"), 0},
        {"loop past the sample end", later().sample(1, 100, 0, 64, 80, 40), 1},
        {"loop exactly to the end", later().sample(1, 100, 0, 64, 60, 40).restart(127), 0},
        {"volume above 64 before the loop", later().sample(1, 100, 0, 65, 80, 40), 0},
        {"finetune above 15", earlier().sample(3, 10, 16, 64, 0, 1), 0},
        {"finetune with restart 127", earlier().sample(1, 1000, 3, 64, 0, 0).restart(127), 0},
        {"finetune with restart 0x78", earlier().sample(1, 1000, 3, 64, 0, 0).restart(0x78), 0},
        {"finetune with restart 0", earlier().sample(1, 1000, 3, 64, 0, 0), 7},
        {"E1x in a scanned pattern, restart 127",
         earlier().order(0, 1).note(0, 5, 2, 14, 0x13).restart(127), 0},
        {"E1x in a scanned pattern, restart 5",
         earlier().order(0, 1).note(0, 5, 2, 14, 0x13).restart(5), 7},
        {"E1x in the highest pattern is not scanned",
         later().order(0, 1).note(1, 5, 2, 14, 0x13).restart(0), 5},
        {"only pattern 0 in the orders: nothing scanned",
         later().note(0, 0, 0, 14, 0x13).note(0, 1, 0, 5, 1), 5},
        {"order table above 100", later().order(127, 101), 0},
        {"restart 127, later loops, empties loop", later().restart(127), 0},
        {"restart 127, later loops, empties plain",
         later().empty_samples(0).sample(1, 1000, 0, 64, 0, 1).restart(127), 6},
        {"restart above 127", later().restart(200), 7},
        {"restart 0, earlier loops, no filter command", earlier(), 7},
        {"restart 0, earlier loops, filter command",
         earlier().order(0, 1).note(0, 0, 0, 14, 0x01), 7},
        {"restart 0, later loops", later(), 5},
        {"portamento to note", later().order(0, 1).note(0, 0, 0, 3, 0x10), 5},
        {"vibrato+slide", later().order(0, 1).note(0, 0, 0, 5, 0x10), 7},
        {"tremolo", later().order(0, 1).note(0, 0, 0, 7, 0x10), 7},
        {"sample offset", later().order(0, 1).note(0, 0, 0, 9, 0x10), 7},
        {"NoiseTracker 1 restart",
         later().sample(2, 0, 0, 0, 0, 0).restart(1).song_length(1), 6},
        {"restart beyond the song length",
         later().sample(2, 0, 0, 0, 0, 0).restart(2).song_length(1), 5},
        {"later used, empties plain, speed only",
         later().empty_samples(0).sample(1, 1000, 0, 64, 0, 1).order(0, 1).note(0, 0, 0, 15, 6),
         6},
        {"later used, empties plain, tempo",
         later().empty_samples(0).sample(1, 1000, 0, 64, 0, 1).order(0, 1).note(0, 0, 0, 15, 125),
         7},
        {"earlier used, restart non-zero", earlier().restart(5), 7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(mod31_classify(c.mod.b.data(), uint32_t(c.mod.b.size())), c.cls);
    }
}

TEST(ModClass, PatternsOutsideTheModuleAreNotScanned) {
    // Highest pattern 2: patterns 0 and 1 would be scanned, but pattern 1 is cut short.
    Mod31 m = later("M.K.", 2);
    m.order(0, 2).note(1, 0, 0, 14, 0x13).restart(0);
    m.b.resize(1084 + 1024 + 512);
    EXPECT_EQ(mod31_classify(m.b.data(), uint32_t(m.b.size())), 5);
    m.b.resize(1084 + 2048);
    EXPECT_EQ(mod31_classify(m.b.data(), uint32_t(m.b.size())), 7);
}

TEST(ModClass, OptionsAndFormatNames) {
    struct Case {
        int cls;
        const char* option;
        const char* name;
    };
    const Case cases[] = {
        {0, "type:pt30", "ProTracker (31-instrument M.K.)"},
        {1, "type:st24", "DOC Soundtracker 2.4 (byte-offset srep)"},
        {2, "type:flt4", "Startrekker 4ch (FLT4)"},
        {3, "type:pt30", "ProTracker (31-instrument M.K.)"},
        {4, "type:m&k.", "His Master's Noise (M&K!)"},
        {5, "type:nt20", "NoiseTracker 2.x"},
        {6, "type:nt10", "NoiseTracker 1.x"},
        {7, "type:comp", "Fasttracker / multichannel"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cls);
        EXPECT_STREQ(mod_class_option(c.cls), c.option);
        EXPECT_STREQ(epopt_format_name(c.option), c.name);
    }
    EXPECT_STREQ(epopt_format_name("type:st20"), "Soundtracker (15-instrument)");
    EXPECT_STREQ(epopt_format_name("type:xyz"), "");
    EXPECT_STREQ(epopt_format_name(""), "");
}

TEST(ModClass, RealModules) {
    struct Case {
        const char* file;
        int is31;
        int cls;
    };
    // The CV modules: restart 127, but their used samples have a zero repeat
    // length and the empty ones no loop (fewer one-word loops than zero ones,
    // fewer looping empties than plain ones) and no tempo command: step 10
    // of the heuristics makes them multichannel. openmpt-test.mod uses
    // finetunes with restart byte 0. The TakeTracker TDZ files carry no
    // 31-instrument tag.
    const Case cases[] = {
        {"CV_BOSS.MOD", 1, 7}, {"CV_TECH.MOD", 1, 7}, {"openmpt-test.mod", 1, 7},
        {"TDZ1.MOD", 0, -1},   {"TDZ2.MOD", 0, -1},   {"TDZ3.MOD", 0, -1},
    };
    Bytes probe;
    REQUIRE_TESTDATA("mods/CV_BOSS.MOD", probe);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        Bytes mod;
        ASSERT_TRUE(read_whole(testdata_path(std::string("mods/") + c.file), mod));
        ASSERT_GE(mod.size(), 1084u);
        EXPECT_EQ(mod_tag_is_31(mod.data()), c.is31);
        if (c.is31) {
            EXPECT_EQ(mod31_classify(mod.data(), uint32_t(mod.size())), c.cls);
        }
    }
}
