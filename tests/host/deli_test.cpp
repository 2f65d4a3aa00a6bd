// The player base: what a reset clears, the module path, the tag scan and
// load. The functions behind the slots are in hostcall_test.cpp.
#include <gtest/gtest.h>

#include <cmath>

#include "host/deli.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

struct DeliTest : MachineTest {
    static constexpr uint32_t entry = 0x200000, list = 0x200100;

    int scan(const std::vector<uint32_t>& tags, std::string* err) {
        m.player = DeliPlayer{};
        write32(m, entry + 12, list);
        for (size_t k = 0; k < tags.size(); k++) write32(m, list + 4 * uint32_t(k), tags[k]);
        int r = -1;
        *err = stderr_of([&] { r = deli_scan_tags(m, entry); });
        return r;
    }
};

constexpr uint32_t DTP_Interrupt = 0x8000445E, DTP_InitPlayer = 0x80004463;
constexpr const char* NO_DRIVE = "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n";

}  // namespace

// Nothing of the last song survives a reset.
TEST_F(DeliTest, InitClearsTheLastSongsState) {
    write32(m, DELI_BASE - 6 * 501, 0xEEEEEEEE);
    m.int_vectors[5] = m.ciares_handler[1][4] = m.deli_neg_calls[11] = m.player.interrupt = m.file_list_count = 3;
    m.ciares_enable[1] = m.ciares_pending[0] = 3;
    m.alloc_slab = 0x600000;
    libs_init(m);
    deli_init(m);
    EXPECT_EQ(read32(m, DELI_BASE - 6 * 501), 0xEEEEEEEEu);  // 500 negative slots, nothing below
    EXPECT_EQ(m.int_vectors[5] | m.ciares_handler[1][4] | m.deli_neg_calls[11] | m.player.interrupt |
                  m.ciares_enable[1] | m.ciares_pending[0] | m.file_list_count, 0u);
    EXPECT_EQ(m.file_list_top | m.alloc_slab, MODULE_ADDR | SLAB_START);
    EXPECT_EQ(m.dmacon & 0x0200, 0x0200);  // master DMA enable, as AllocAudio would
    EXPECT_EQ(read16(m, DELI_BASE + 0x36), std::lround(709379 / 50.0));  // CIA ticks of a 50 Hz interrupt
}

TEST_F(DeliTest, ModulePathAndStrings) {
    libs_init(m);
    deli_init(m);
    const std::string long_dir = std::string(600, 'd') + "/";
    struct Case { std::string path, dir, file; };
    const Case cases[] = {
        {"Mods/sub/song.mod", "Mods/sub/", "song.mod"}, {"song.mod", "", "song.mod"}, {"dir/", "dir/", ""},
        {long_dir + "f.mod", long_dir.substr(0, 511), "f.mod"}, {std::string(2000, 'p'), "", std::string(511, 'p')},
    };
    for (const Case& c : cases) {
        deli_set_module_path(m, c.path.c_str());
        EXPECT_EQ(get_string(m, read32(m, DELI_BASE + 0x20)) + "|" + get_string(m, read32(m, DELI_BASE + 0x18)) + "|" +
                      get_string(m, read32(m, DELI_BASE + 0x1C)), c.path.substr(0, 1023) + "|" + c.dir + "|" + c.file);
    }
    // Long paths stay inside their buffers: the jump tables around them are intact.
    EXPECT_EQ(read16(m, LIB3_BASE - 720) << 16 | read16(m, DOS_BASE - 30), 0x7000A100u);
    // Appending a string to itself never meets a terminator; it must still end.
    put_string(m, 0x1000, "ab");
    deli_str_append(m, 0x1000, 0x1000);
    EXPECT_EQ(read16(m, 0x1002), 0x6162);
    // The names of the negative slots end with their table.
    EXPECT_EQ(std::string(deli_neg_name(-390)) + deli_neg_name(-396) + deli_neg_name(6), "GetHardwareType");
}

TEST_F(DeliTest, TagScanNeedsARoutineToDrive) {
    write32(m, 0, 0x11223344);
    // 256 pairs are read at most: the 257th is not.
    std::vector<uint32_t> limit(2 * 255, 0x80001234), over = limit;
    limit.insert(limit.end(), {DTP_InitPlayer, 0x200050, DTP_Interrupt, 0x200060});
    over.insert(over.end(), {0x80001234, 0, DTP_InitPlayer, 0x200050});
    struct Case { std::vector<uint32_t> tags; const char* message; };  // a zero tag ends the pairs
    const Case cases[] = {
        {{0, 0}, NO_DRIVE}, {{DTP_InitPlayer, 0x200040, 0, 0}, ""}, {{DTP_Interrupt, 0x200044, 0, 0}, ""},
        {{0x80004460, 0x200040, 0, 0}, NO_DRIVE},  // Config alone
        {{DTP_InitPlayer, 0, 0, 0}, NO_DRIVE},     // a zero routine is none
        {{0x8000457A, 0, 0x80004473, 0, DTP_Interrupt, 4, 0, 0}, ""},  // EagleBase, StoreBase without a variable
        {limit, ""}, {over, NO_DRIVE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tags.size());
        std::string err;
        EXPECT_EQ(scan(c.tags, &err), *c.message ? 1 : 0);
        EXPECT_EQ(err, c.message);
    }
    EXPECT_EQ(read32(m, 0), 0x11223344u);
}

// Loading scans the tags, fills the base variables and runs Config with A6 = exec.
TEST_F(DeliTest, LoadRunsConfig) {
    // moveq #-1,d0; rts; signature; tags at 16: Config 52, EagleBase 64, StoreBase 68, InitPlayer 58;
    // at 52: move.l a6,$200048 (offset 72); rts.
    auto file = be_longs({0x3F3, 0, 1, 0, 0, 19, 0x3E9, 19, 0x70FF4E75, 0x44454C49, 0x5249554D, 16, 0x80004460, 52,
                          0x8000457A, 64, 0x80004473, 68, DTP_InitPlayer, 58, 0, 0x23CE0020, 0x00484E75, 0, 0, 0, 0,
                          0x3EC, 5, 0, 12, 20, 28, 36, 44, 0, 0x3F2});
    ASSERT_EQ(orvel_load_player_mem(m, file.data(), uint32_t(file.size())), PLAYER_LOAD_ADDR);
    EXPECT_EQ(read32(m, PLAYER_LOAD_ADDR + 64) & read32(m, PLAYER_LOAD_ADDR + 68), DELI_BASE);
    EXPECT_EQ(read32(m, PLAYER_LOAD_ADDR + 72), EXEC_BASE);
}
