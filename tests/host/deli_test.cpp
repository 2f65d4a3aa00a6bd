#include <gtest/gtest.h>

#include <climits>

#include "host/deli.h"
#include "host/runner.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

struct DeliTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
};

// A jump slot holds an entry and leaves its last two bytes alone.
struct Slot {
    const char* what;
    uint32_t address;
    uint16_t word0, word1;
};

void expect_slots(Machine& m, std::initializer_list<Slot> slots) {
    for (const Slot& s : slots) {
        SCOPED_TRACE(s.what);
        EXPECT_EQ(read16(m, s.address), s.word0);
        EXPECT_EQ(read16(m, s.address + 2), s.word1);
        EXPECT_EQ(read16(m, s.address + 4), 0);
    }
}

constexpr uint16_t RTS = 0x4E75, MOVEQ0 = 0x7000;

// Tags.
constexpr uint32_t DTP_RequestDTVersion = 0x80004456, DTP_PlayerVersion = 0x80004458,
                   DTP_PlayerName = 0x80004459, DTP_Interrupt = 0x8000445E,
                   DTP_Config = 0x80004460, DTP_InitPlayer = 0x80004463,
                   DTP_Volume = 0x80004469, DTP_StoreBase = 0x80004473, EP_Voices = 0x80004552,
                   EP_Flags = 0x8000455E, EP_EagleBase = 0x8000457A;

}  // namespace

TEST_F(DeliTest, LibraryJumpTables) {
    libs_init(m);
    expect_slots(m, {
        {"exec AllocMem", EXEC_BASE - 198, 0xA000, RTS},
        {"exec FreeMem", EXEC_BASE - 210, 0xA001, RTS},
        {"exec OpenLibrary", EXEC_BASE - 552, 0xA002, RTS},
        {"exec OldOpenLibrary", EXEC_BASE - 408, 0xA002, RTS},
        {"exec CloseLibrary", EXEC_BASE - 414, 0xA003, RTS},
        {"exec TypeOfMem", EXEC_BASE - 534, 0xA004, RTS},
        {"exec OpenResource", EXEC_BASE - 498, 0xA005, RTS},
        {"exec AddIntServer", EXEC_BASE - 168, 0xA006, RTS},
        {"exec SetIntVector", EXEC_BASE - 162, 0xA007, RTS},
        {"exec Cause", EXEC_BASE - 180, 0xA008, RTS},
        {"exec first slot", EXEC_BASE - 6, MOVEQ0, RTS},
        {"exec slot 200", EXEC_BASE - 1200, MOVEQ0, RTS},
        {"dos Open", DOS_BASE - 30, 0xA100, RTS},
        {"dos Close", DOS_BASE - 36, 0xA101, RTS},
        {"dos Read", DOS_BASE - 42, 0xA102, RTS},
        {"dos Seek", DOS_BASE - 66, 0xA103, RTS},
        {"dos Lock", DOS_BASE - 84, 0xA104, RTS},
        {"dos UnLock", DOS_BASE - 90, 0xA105, RTS},
        {"dos LoadSeg", DOS_BASE - 150, 0xA106, RTS},
        {"dos UnLoadSeg", DOS_BASE - 156, 0xA107, RTS},
        {"dos slot 80", DOS_BASE - 480, MOVEQ0, RTS},
        {"third library slot 120", LIB3_BASE - 720, MOVEQ0, RTS},
        {"fourth library slot 1", LIB4_BASE - 6, MOVEQ0, RTS},
        {"fifth library options", LIB5_BASE - 24, 0xA800, RTS},
        {"fifth library slot 40", LIB5_BASE - 240, MOVEQ0, RTS},
        {"ciaa AddICRVector", CIAA_RES_BASE - 6, 0xA601, RTS},
        {"ciaa SetICR", CIAA_RES_BASE - 24, 0xA604, RTS},
        {"ciab RemICRVector", CIAB_RES_BASE - 12, 0xA702, RTS},
        {"ciab AbleICR", CIAB_RES_BASE - 18, 0xA703, RTS},
    });
    // Only the listed number of slots is filled.
    const uint32_t beyond[] = {EXEC_BASE - 1206, DOS_BASE - 486, LIB3_BASE - 726,
                               LIB5_BASE - 246, CIAA_RES_BASE - 30, CIAB_RES_BASE - 30};
    for (uint32_t a : beyond) EXPECT_EQ(read32(m, a), 0u) << std::hex << a;
    EXPECT_EQ(read32(m, 4), EXEC_BASE);
    EXPECT_EQ(read8(m, 0xF80212), 50);
    EXPECT_EQ(read8(m, 0xF80213), 50);
    EXPECT_EQ(m.alloc_slab, SLAB_START);
}

TEST_F(DeliTest, LibsInitClearsDispatcherState) {
    m.int_vectors[5] = 0x1234;
    m.ciares_enable[1] = 3;
    m.ciares_pending[0] = 1;
    m.ciares_handler[1][4] = 0x5678;
    m.alloc_slab = 0x500000;
    libs_init(m);
    EXPECT_EQ(m.int_vectors[5], 0u);
    EXPECT_EQ(m.ciares_enable[1], 0);
    EXPECT_EQ(m.ciares_pending[0], 0);
    EXPECT_EQ(m.ciares_handler[1][4], 0u);
    EXPECT_EQ(m.alloc_slab, SLAB_START);
}

TEST_F(DeliTest, FallbackFillsExactlyCountSlots) {
    lib_install_fallback(m, 0x300000, 3);
    expect_slots(m, {{"slot 1", 0x2FFFFA, MOVEQ0, RTS}, {"slot 3", 0x2FFFEE, MOVEQ0, RTS}});
    EXPECT_EQ(read32(m, 0x2FFFE8), 0u);
    EXPECT_EQ(read32(m, 0x300000), 0u);
}

TEST_F(DeliTest, GlobalBaseLayout) {
    for (uint32_t a = DELI_BASE; a < DELI_BASE + 0x200; a++) write8(m, a, 0xEE);
    m.deli_neg_calls[11] = 5;
    m.player.interrupt = 0x200010;
    m.file_list_count = 3;
    m.alloc_slab = 0x600000;
    deli_init(m);

    struct Field {
        uint32_t offset;
        int width;
        uint32_t value;
    };
    const Field fields[] = {
        {0x00, 32, 0},          {0x04, 32, DOS_BASE},  {0x08, 32, LIB3_BASE},
        {0x0C, 32, LIB4_BASE},  {0x10, 32, 0},         {0x18, 32, 0},
        {0x20, 32, 0},          {0x24, 32, 0},         {0x28, 32, 0},
        {0x2C, 16, 0},          {0x2E, 16, 64},        {0x30, 16, 64},
        {0x32, 16, 64},         {0x34, 16, 0},         {0x36, 16, 14188},
        {0x38, 32, 0xF95000},   {0x64, 32, 0xF9502C},  {0xB8, 32, 0xF95080},
        {0x146, 16, 0x000F},    {0x148, 16, 64},       {0x14A, 16, 64},
        {0x14C, 16, 64},        {0x14E, 16, 64},
    };
    for (const Field& f : fields) {
        SCOPED_TRACE(f.offset);
        uint32_t got = f.width == 32 ? read32(m, DELI_BASE + f.offset) : read16(m, DELI_BASE + f.offset);
        EXPECT_EQ(got, f.value);
    }
    // Function pointer i leads to A400+i, RTS.
    for (uint32_t i = 0; i < 33; i++) {
        SCOPED_TRACE(i);
        uint32_t stub = read32(m, DELI_BASE + 0x38 + 4 * i);
        EXPECT_EQ(stub, DELI_STUBS + 4 * i);
        EXPECT_EQ(read16(m, stub), 0xA400 + i);
        EXPECT_EQ(read16(m, stub + 2), RTS);
    }
    EXPECT_EQ(read16(m, DELI_STUBS + 4 * 11), 0xA40B);
    // 500 negative slots down to 0xF8F448, nothing below.
    for (uint32_t k = 1; k <= 500; k++) {
        uint32_t slot = DELI_BASE - 6 * k;
        ASSERT_EQ(read16(m, slot), 0xA500) << k;
        ASSERT_EQ(read16(m, slot + 2), RTS) << k;
    }
    EXPECT_EQ(DELI_BASE - 6 * 500, 0xF8F448u);
    EXPECT_EQ(read32(m, 0xF8F442), 0u);

    EXPECT_EQ(m.deli_neg_calls[11], 0u);
    EXPECT_EQ(m.player.interrupt, 0u);
    EXPECT_EQ(m.file_list_count, 0u);
    EXPECT_EQ(m.file_list_top, MODULE_ADDR);
    EXPECT_EQ(m.alloc_slab, SLAB_START);
    EXPECT_EQ(m.dmacon & 0x0200, 0x0200);  // master DMA enable, as AllocAudio would
}

TEST_F(DeliTest, ModulePathSplitsIntoDirectoryAndFile) {
    libs_init(m);
    deli_init(m);
    struct Case {
        std::string path, dir, file;
    };
    const std::string long_dir = std::string(600, 'd') + "/";
    const Case cases[] = {
        {"Mods/sub/song.mod", "Mods/sub/", "song.mod"},
        {"song.mod", "", "song.mod"},
        {"/abs/x", "/abs/", "x"},
        {"dir/", "dir/", ""},
        {"", "", ""},
        {long_dir + "f.mod", long_dir.substr(0, 511), "f.mod"},
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
    // Long paths stay inside their buffers: the third library's jump table,
    // right above the file-name buffer, is intact.
    EXPECT_EQ(read16(m, LIB3_BASE - 720), MOVEQ0);
    EXPECT_EQ(read16(m, DOS_BASE - 30), 0xA100);
}

TEST_F(DeliTest, ModuleIsFileListEntryZero) {
    deli_init(m);
    struct Case {
        uint32_t address, size, top;
    };
    const Case cases[] = {{0x10000, 0x1234, 0x11234}, {0x10000, 0x1235, 0x11236}, {0x10001, 0, 0x10002}};
    for (const Case& c : cases) {
        deli_set_module(m, c.address, c.size);
        EXPECT_EQ(read32(m, DELI_BASE + 0x24), c.address);
        EXPECT_EQ(read32(m, DELI_BASE + 0x28), c.size);
        EXPECT_EQ(m.module_addr, c.address);
        EXPECT_EQ(m.module_len, c.size);
        EXPECT_EQ(m.file_list_count, 1u);
        EXPECT_EQ(m.file_list_addr[0], c.address);
        EXPECT_EQ(m.file_list_len[0], c.size);
        EXPECT_EQ(m.file_list_top, c.top);
    }
}

TEST_F(DeliTest, TagScan) {
    constexpr uint32_t entry = 0x200000, list = 0x200100;
    struct Case {
        const char* what;
        std::vector<uint32_t> tags;  // pairs; 0 not added
        int result;
        const char* message;
    };
    const Case cases[] = {
        {"first tag 0", {0, 0}, 1, "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n"},
        {"InitPlayer alone", {DTP_InitPlayer, 0x200040, 0, 0}, 0, ""},
        {"Interrupt alone", {DTP_Interrupt, 0x200044, 0, 0}, 0, ""},
        {"routines of no use alone", {DTP_Config, 0x200040, EP_Voices, 0x200048, 0, 0}, 1,
         "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n"},
        {"a zero routine is no routine", {DTP_InitPlayer, 0, 0, 0}, 1,
         "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        m.player = DeliPlayer{};
        write32(m, entry + 12, list);
        for (size_t k = 0; k < c.tags.size(); k++) write32(m, list + 4 * uint32_t(k), c.tags[k]);
        int r = -1;
        EXPECT_EQ(stderr_of([&] { r = deli_scan_tags(m, entry); }), c.message);
        EXPECT_EQ(r, c.result);
    }

    write32(m, entry + 12, 0);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_scan_tags(m, entry), 1); }),
              "deli_scan_tags: empty tag list at entry 00200000\n");
}

TEST_F(DeliTest, TagScanRecordsEveryKnownTag) {
    constexpr uint32_t entry = 0x200000, list = 0x200100, eagle_var = 0x200800,
                       store_var = 0x200804;
    write32(m, entry + 12, list);
    const uint32_t tags[] = {
        DTP_RequestDTVersion, 0xABCD0017, DTP_PlayerVersion, 0x00030009,
        DTP_PlayerName, 0x200300, 0x8000445A, 0x200310,  // Creator
        0x8000445B, 0x200400, 0x8000445C, 0x200404, 0x8000445D, 0x200408,
        DTP_Interrupt, 0x20040C, DTP_Config, 0x200410, 0x80004462, 0x200414,
        DTP_InitPlayer, 0x200418, 0x80004464, 0x20041C, 0x80004465, 0x200420,
        0x80004466, 0x200424, 0x80004467, 0x200428, 0x80004468, 0x20042C,
        DTP_Volume, 0x200430, 0x8000446A, 0x200434, EP_Voices, 0x200438,
        EP_Flags, 0x41, 0x80004573, 0x20043C, EP_EagleBase, eagle_var,
        DTP_StoreBase, store_var, 0x80004461, 0x12345678,  // unknown: skipped
        DTP_Volume, 0x200440,                              // repeated: the last counts
        0, 0,
    };
    for (size_t k = 0; k < std::size(tags); k++) write32(m, list + 4 * uint32_t(k), tags[k]);
    ASSERT_EQ(deli_scan_tags(m, entry), 0);
    const DeliPlayer& p = m.player;
    EXPECT_EQ(p.dt_version, 0x0017);
    EXPECT_EQ(p.player_version, 0x0003);
    EXPECT_EQ(p.player_name, 0x200300u);
    EXPECT_EQ(p.creator, 0x200310u);
    const uint32_t routines[] = {p.check1,      p.check2,     p.ext_load,   p.interrupt,
                                 p.config,      p.subsong_range, p.init_player, p.end_player,
                                 p.init_sound,  p.end_sound,  p.start_int,  p.stop_int};
    for (size_t k = 0; k < std::size(routines); k++) EXPECT_EQ(routines[k], 0x200400 + 4 * k) << k;
    EXPECT_EQ(p.volume, 0x200440u);
    EXPECT_EQ(p.balance, 0x200434u);
    EXPECT_EQ(p.ep_voices, 0x200438u);
    EXPECT_EQ(p.ep_flags, 0x41u);
    EXPECT_EQ(p.ep_init_amplifier, 0x20043Cu);
    EXPECT_EQ(read32(m, eagle_var), DELI_BASE);
    EXPECT_EQ(read32(m, store_var), DELI_BASE);
}

TEST_F(DeliTest, TagScanStopsAfter256Pairs) {
    constexpr uint32_t entry = 0x200000, list = 0x200100;
    write32(m, entry + 12, list);
    auto fill = [&](uint32_t last_tag) {
        for (uint32_t n = 0; n < 255; n++) write32(m, list + 8 * n, 0x80001234);
        write32(m, list + 8 * 255, last_tag);
        write32(m, list + 8 * 255 + 4, 0x200050);
        write32(m, list + 8 * 256, DTP_Interrupt);  // pair 257: never read
        write32(m, list + 8 * 256 + 4, 0x200060);
    };
    fill(DTP_InitPlayer);
    m.player = DeliPlayer{};
    EXPECT_EQ(deli_scan_tags(m, entry), 0);
    EXPECT_EQ(m.player.init_player, 0x200050u);
    EXPECT_EQ(m.player.interrupt, 0u);

    fill(0x80001234);
    m.player = DeliPlayer{};
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_scan_tags(m, entry), 1); }),
              "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n");
}

TEST_F(DeliTest, TagScanLeavesZeroBaseVariablesAlone) {
    constexpr uint32_t entry = 0x200000, list = 0x200100;
    write32(m, entry + 12, list);
    write32(m, 0, 0x11223344);
    const uint32_t tags[] = {EP_EagleBase, 0, DTP_StoreBase, 0, DTP_InitPlayer, 0x200040, 0, 0};
    for (size_t k = 0; k < std::size(tags); k++) write32(m, list + 4 * uint32_t(k), tags[k]);
    EXPECT_EQ(deli_scan_tags(m, entry), 0);
    EXPECT_EQ(read32(m, 0), 0x11223344u);
}

TEST_F(DeliTest, LoadPlayerFailures) {
    auto bad_hunk = be_longs({0x3F0, 0, 0});
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(orvel_load_player_mem(m, bad_hunk.data(), uint32_t(bad_hunk.size())), 0u);
              }),
              "hunk: missing HUNK_HEADER\n");
    // moveq #-1,d0; rts; signature; no tag list.
    auto no_tags = be_longs({0x3F3, 0, 1, 0, 0, 4, 0x3E9, 4, 0x70FF4E75, 0x44454C49, 0x5249554D,
                             0, 0x3F2});
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(orvel_load_player_mem(m, no_tags.data(), uint32_t(no_tags.size())), 0u);
              }),
              "deli_scan_tags: empty tag list at entry 00200000\n");
}

TEST_F(DeliTest, LoadsBuiltPlayer) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_PLAYER);
    libs_init(m);
    deli_init(m);
    uint32_t entry = 0;
    stderr_of([&] { entry = orvel_load_player_mem(m, file.data(), uint32_t(file.size())); });
    ASSERT_EQ(entry, PLAYER_LOAD_ADDR);
    EXPECT_EQ(read32(m, entry), 0x70FF4E75u);
    EXPECT_EQ(get_string(m, entry + 4, 8), "DELIRIUM");
    const DeliPlayer& p = m.player;
    EXPECT_EQ(p.dt_version, 0x17);
    EXPECT_EQ(p.player_version, 3);
    EXPECT_EQ(get_string(m, p.player_name), "test player");
    EXPECT_EQ(get_string(m, p.creator), "orvel tests");
    EXPECT_EQ(p.ep_flags, 0x41u);
    for (uint32_t r : {p.config, p.init_player, p.end_player, p.interrupt}) {
        EXPECT_GT(r, entry);
        EXPECT_LT(r, m.image_end);
    }
    uint32_t state = read32(m, entry + 16);
    EXPECT_EQ(read32(m, state), 0x504C4159u);  // "PLAY": the data hunk arrived
    EXPECT_EQ(read32(m, state + 8), DELI_BASE);
    EXPECT_EQ(read32(m, state + 12), DELI_BASE);
}

TEST_F(DeliTest, StringAppend) {
    struct Case {
        std::string dest, src;
    };
    const Case cases[] = {{"abc", "def"}, {"", "xyz"}, {"abc", ""}, {"", ""}};
    for (const Case& c : cases) {
        put_string(m, 0x1000, c.dest);
        put_string(m, 0x2000, c.src);
        write8(m, 0x1000 + uint32_t(c.dest.size() + c.src.size()) + 1, 0xEE);
        deli_str_append(m, 0x1000, 0x2000);
        EXPECT_EQ(get_string(m, 0x1000), c.dest + c.src);
        EXPECT_EQ(read8(m, 0x1000 + uint32_t(c.dest.size() + c.src.size()) + 1), 0xEE);
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
    struct Case {
        int offset;
        const char* name;
    };
    const Case cases[] = {
        {-6, "AllocSampleStruct"}, {-60, "WindowToFront"}, {-66, "GetListData"},
        {-72, "LoadFile"},         {-132, "SetTimer"},     {-246, "DMAMask"},
        {-258, "PokeLen"},         {-264, "PokePer"},      {-270, "PokeVol"},
        {-348, "AllocAmigaAudio"}, {-390, "GetHardwareType"},
        {-396, ""}, {-7, ""}, {0, ""}, {6, ""}, {66, ""}, {INT_MIN, ""}, {INT_MAX, ""},
    };
    for (const Case& c : cases) EXPECT_STREQ(deli_neg_name(c.offset), c.name) << c.offset;
}
