// The player base: what libs_init and deli_init lay out, the module path
// and file list, the tag scan. The functions behind the slots are tested
// through the probe player (hostcall_test.cpp).
#include <gtest/gtest.h>

#include <climits>

#include "host/deli.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

struct DeliTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    static constexpr uint32_t entry = 0x200000, list = 0x200100;

    int scan(const std::vector<uint32_t>& tags, std::string* err = nullptr) {
        m.player = DeliPlayer{};
        write32(m, entry + 12, list);
        for (size_t k = 0; k < tags.size(); k++) write32(m, list + 4 * uint32_t(k), tags[k]);
        int r = -1;
        std::string e = stderr_of([&] { r = deli_scan_tags(m, entry); });
        if (err) *err = e;
        return r;
    }
};

constexpr uint32_t DTP_RequestDTVersion = 0x80004456, DTP_PlayerVersion = 0x80004458, DTP_Interrupt = 0x8000445E,
                   DTP_Config = 0x80004460, DTP_InitPlayer = 0x80004463, DTP_Volume = 0x80004469,
                   DTP_StoreBase = 0x80004473, EP_Voices = 0x80004552, EP_Flags = 0x8000455E,
                   EP_EagleBase = 0x8000457A;
constexpr const char* NO_DRIVE = "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n";

}  // namespace

TEST_F(DeliTest, InitLaysOutTheBaseAndClearsState) {
    for (uint32_t a = DELI_BASE; a < DELI_BASE + 0x200; a++) write8(m, a, 0xEE);
    m.int_vectors[5] = m.ciares_handler[1][4] = 0x1234;
    m.ciares_enable[1] = m.ciares_pending[0] = 3;
    m.deli_neg_calls[11] = 5;
    m.player.interrupt = 0x200010;
    m.file_list_count = 3;
    m.alloc_slab = 0x600000;
    libs_init(m);
    deli_init(m);

    struct Field { uint32_t offset; int width; uint32_t value; };
    const Field fields[] = {
        {0x00, 32, 0},         {0x04, 32, DOS_BASE},  {0x08, 32, LIB3_BASE}, {0x0C, 32, LIB4_BASE},
        {0x10, 32, 0},         {0x18, 32, 0},         {0x20, 32, 0},         {0x24, 32, 0},
        {0x28, 32, 0},         {0x2C, 16, 0},         {0x2E, 16, 64},        {0x30, 16, 64},
        {0x32, 16, 64},        {0x34, 16, 0},         {0x36, 16, 14188},     {0x38, 32, 0xF95000},
        {0x64, 32, 0xF9502C},  {0xB8, 32, 0xF95080},  {0x146, 16, 0x000F},   {0x148, 16, 64},
        {0x14A, 16, 64},       {0x14C, 16, 64},       {0x14E, 16, 64},
    };
    for (const Field& f : fields) {
        SCOPED_TRACE(f.offset);
        EXPECT_EQ(f.width == 32 ? read32(m, DELI_BASE + f.offset) : read16(m, DELI_BASE + f.offset), f.value);
    }
    EXPECT_EQ(read32(m, DELI_BASE - 6 * 501), 0u);  // 500 negative slots, nothing below
    EXPECT_EQ(read8(m, EXEC_BASE + 0x212), 50);     // VBlankFrequency, PowerSupplyFrequency
    EXPECT_EQ(read8(m, EXEC_BASE + 0x213), 50);

    EXPECT_EQ(m.int_vectors[5] | m.ciares_handler[1][4] | m.deli_neg_calls[11], 0u);
    EXPECT_EQ(m.ciares_enable[1] | m.ciares_pending[0], 0);
    EXPECT_EQ(m.player.interrupt, 0u);
    EXPECT_EQ(m.file_list_count, 0u);
    EXPECT_EQ(m.file_list_top, MODULE_ADDR);
    EXPECT_EQ(m.alloc_slab, SLAB_START);
    EXPECT_EQ(m.dmacon & 0x0200, 0x0200);  // master DMA enable, as AllocAudio would
}

TEST_F(DeliTest, ModulePathSplitsIntoDirectoryAndFile) {
    libs_init(m);
    deli_init(m);
    struct Case { std::string path, dir, file; };
    const std::string long_dir = std::string(600, 'd') + "/";
    const Case cases[] = {
        {"Mods/sub/song.mod", "Mods/sub/", "song.mod"}, {"song.mod", "", "song.mod"}, {"/abs/x", "/abs/", "x"},
        {"dir/", "dir/", ""}, {"", "", ""}, {long_dir + "f.mod", long_dir.substr(0, 511), "f.mod"},
        {std::string(2000, 'p'), "", std::string(511, 'p')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 40));
        deli_set_module_path(m, c.path.c_str());
        EXPECT_EQ(get_string(m, PATH_BUFFER), c.path.substr(0, 1023));
        EXPECT_EQ(get_string(m, DIR_BUFFER), c.dir);
        EXPECT_EQ(get_string(m, FILE_BUFFER), c.file);
        EXPECT_EQ(read32(m, DELI_BASE + 0x18), DIR_BUFFER);
        EXPECT_EQ(read32(m, DELI_BASE + 0x1C), FILE_BUFFER);
        EXPECT_EQ(read32(m, DELI_BASE + 0x20), PATH_BUFFER);
    }
    // Long paths stay inside their buffers: the jump tables around them are intact.
    EXPECT_EQ(read16(m, LIB3_BASE - 720), 0x7000);
    EXPECT_EQ(read16(m, DOS_BASE - 30), 0xA100);
}

TEST_F(DeliTest, TagScanNeedsARoutineToDrive) {
    write32(m, 0, 0x11223344);
    // 256 pairs are read at most: the 257th is not.
    std::vector<uint32_t> limit(2 * 255, 0x80001234), over = limit;
    limit.insert(limit.end(), {DTP_InitPlayer, 0x200050, DTP_Interrupt, 0x200060});
    over.insert(over.end(), {0x80001234, 0, DTP_InitPlayer, 0x200050});
    struct Case { std::vector<uint32_t> tags; int result; const char* message; };  // a zero tag ends the pairs
    const Case cases[] = {
        {{0, 0}, 1, NO_DRIVE},
        {{DTP_InitPlayer, 0x200040, 0, 0}, 0, ""},
        {{DTP_Interrupt, 0x200044, 0, 0}, 0, ""},
        {{DTP_Config, 0x200040, EP_Voices, 0x200048, 0, 0}, 1, NO_DRIVE},  // routines of no use alone
        {{DTP_InitPlayer, 0, 0, 0}, 1, NO_DRIVE},                           // a zero routine is none
        {{EP_EagleBase, 0, DTP_StoreBase, 0, DTP_Interrupt, 4, 0, 0}, 0, ""},  // no variable: left alone
        {limit, 0, ""},
        {over, 1, NO_DRIVE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tags.size());
        std::string err;
        EXPECT_EQ(scan(c.tags, &err), c.result);
        EXPECT_EQ(err, c.message);
    }
    EXPECT_EQ(read32(m, 0), 0x11223344u);
}

TEST_F(DeliTest, TagScanRecordsEveryKnownTag) {
    constexpr uint32_t eagle_var = 0x200800, store_var = 0x200804;
    // PlayerName, Creator, Check1, Check2, ExtLoad, Interrupt, Config,
    // SubSongRange, InitPlayer, EndPlayer, InitSound, EndSound, StartInt,
    // StopInt, Volume, Balance, EP_Voices, EP_InitAmplifier: data 0x200400 + 4k.
    const uint32_t pointer_tags[] = {0x80004459, 0x8000445A, 0x8000445B, 0x8000445C, 0x8000445D, 0x8000445E,
                                     0x80004460, 0x80004462, 0x80004463, 0x80004464, 0x80004465, 0x80004466,
                                     0x80004467, 0x80004468, 0x80004469, 0x8000446A, 0x80004552, 0x80004573};
    std::vector<uint32_t> tags = {DTP_RequestDTVersion, 0xABCD0017, DTP_PlayerVersion, 0x00030009, EP_Flags, 0x41,
                                  EP_EagleBase, eagle_var, DTP_StoreBase, store_var,
                                  0x80004461, 0x12345678,  // unknown: skipped
                                  DTP_Volume, 0x1234};     // repeated below: the last counts
    for (uint32_t k = 0; k < std::size(pointer_tags); k++) tags.insert(tags.end(), {pointer_tags[k], 0x200400 + 4 * k});
    tags.insert(tags.end(), {0, 0});
    ASSERT_EQ(scan(tags), 0);
    const DeliPlayer& p = m.player;
    const uint32_t pointers[] = {p.player_name, p.creator,   p.check1,    p.check2,    p.ext_load,      p.interrupt,
                                 p.config,      p.subsong_range, p.init_player, p.end_player, p.init_sound, p.end_sound,
                                 p.start_int,   p.stop_int,  p.volume,    p.balance,   p.ep_voices, p.ep_init_amplifier};
    for (uint32_t k = 0; k < std::size(pointers); k++) EXPECT_EQ(pointers[k], 0x200400 + 4 * k) << k;
    EXPECT_EQ(p.dt_version, 0x0017);
    EXPECT_EQ(p.player_version, 0x0003);
    EXPECT_EQ(p.ep_flags, 0x41u);
    EXPECT_EQ(read32(m, eagle_var), DELI_BASE);
    EXPECT_EQ(read32(m, store_var), DELI_BASE);
}

TEST_F(DeliTest, LoadPlayerFailures) {
    struct Case { std::vector<uint8_t> file; const char* message; };
    const Case cases[] = {
        {be_longs({0x3F0, 0, 0}), "hunk: missing HUNK_HEADER\n"},
        // moveq #-1,d0; rts; signature; no tag list
        {be_longs({0x3F3, 0, 1, 0, 0, 4, 0x3E9, 4, 0x70FF4E75, 0x44454C49, 0x5249554D, 0, 0x3F2}),
         "deli_scan_tags: empty tag list at entry 00200000\n"},
    };
    for (const Case& c : cases) {
        uint32_t got = 1;
        EXPECT_EQ(stderr_of([&] { got = orvel_load_player_mem(m, c.file.data(), uint32_t(c.file.size())); }),
                  c.message);
        EXPECT_EQ(got, 0u);
    }
}

// Appending a string to itself never meets a terminator: the copy feeds
// itself. It must still end.
TEST_F(DeliTest, StringAppendToItselfEnds) {
    put_string(m, 0x1000, "ab");
    deli_str_append(m, 0x1000, 0x1000);
    EXPECT_EQ(read8(m, 0x1002), 'a');
    EXPECT_EQ(read8(m, 0x1003), 'b');
}

TEST(DeliNames, NegativeTable) {
    struct Case { int offset; const char* name; };
    const Case cases[] = {
        {-6, "AllocSampleStruct"}, {-60, "WindowToFront"}, {-66, "GetListData"}, {-72, "LoadFile"},
        {-132, "SetTimer"},        {-246, "DMAMask"},      {-258, "PokeLen"},    {-264, "PokePer"},
        {-270, "PokeVol"},         {-348, "AllocAmigaAudio"}, {-390, "GetHardwareType"},
        {-396, ""}, {-7, ""}, {0, ""}, {6, ""}, {66, ""}, {INT_MIN, ""}, {INT_MAX, ""},
    };
    for (const Case& c : cases) EXPECT_STREQ(deli_neg_name(c.offset), c.name) << c.offset;
}
