#include <gtest/gtest.h>

#include "formats/loadfile.h"
#include "formats_test_util.h"
#include "host/deli.h"

namespace {

std::string temp_file(const char* name, const Bytes& data) {
    std::string path = std::string(ORVEL_TEST_BINARY_DIR) + "/" + name;
    EXPECT_TRUE(write_whole(path, data));
    return path;
}

}  // namespace

TEST(LoadFile, FailuresGiveNullAndAMessage) {
    std::string missing = std::string(ORVEL_TEST_BINARY_DIR) + "/no_such_module.mod";
    std::string empty = temp_file("empty_module.mod", {});
    struct Case {
        std::string path;
        std::string message;
    };
    const Case cases[] = {
        {missing, "load_file: cannot open " + missing + "\n"},
        {empty, "load_file: " + empty + " is empty\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        testing::internal::CaptureStderr();
        uint32_t len = 1234;
        EXPECT_EQ(load_file(c.path.c_str(), len), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    }
    std::remove(empty.c_str());
}

TEST(LoadFile, ShortAndPlainFilesComeBackAsTheyAre) {
    Bytes xpk21(21, 0), lha21(21, 0), plain = hex("00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F "
                                                   "10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D");
    std::memcpy(xpk21.data(), "XPKF", 4);
    std::memcpy(lha21.data() + 2, "-lh5-", 5);
    for (const Bytes* b : {&xpk21, &lha21, &plain}) {
        std::string path = temp_file("plain_module.bin", *b);
        testing::internal::CaptureStderr();
        uint32_t len = 0;
        uint8_t* data = load_file(path.c_str(), len);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(Bytes(data, data + len), *b);
        std::free(data);
        std::remove(path.c_str());
    }
}

TEST(LoadFile, HeadersClaimingMoreThanMemoryAreNotUnpacked) {
    // An -lh5- member and an XPK stream that would unpack to 64 MiB of zeros.
    Bytes lha(40, 0);
    lha[0] = 20;
    std::memcpy(lha.data() + 2, "-lh5-", 5);
    lha[7] = 10;           // packed
    lha[14] = 0x04;        // unpacked 0x04000000
    Bytes xpk(44, 0);
    std::memcpy(xpk.data(), "XPKF", 4);
    put_be32(xpk, 4, 36);
    std::memcpy(xpk.data() + 8, "NONE", 4);
    put_be32(xpk, 12, 0x04000000);
    for (const Bytes* b : {&lha, &xpk}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(unpack_copy(*b), *b);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST(ModInstall, WindowLimits) {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    const uint32_t window = MODULE_WINDOW_END - MODULE_ADDR;
    ASSERT_EQ(window, 983040u);
    Bytes module(window + 1);
    for (size_t i = 0; i < module.size(); i++) module[i] = uint8_t(i * 7 + 1);

    EXPECT_EQ(mod_install(m, module.data(), window), window);
    EXPECT_EQ(m.module_addr, MODULE_ADDR);
    EXPECT_EQ(m.module_len, window);
    EXPECT_EQ(std::memcmp(m.chip_ram + MODULE_ADDR, module.data(), window), 0);
    EXPECT_EQ(m.chip_ram[MODULE_WINDOW_END], 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(mod_install(m, module.data(), window + 1), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mod_install: 983041 bytes exceeds chip-RAM window (983040)\n");
    EXPECT_EQ(m.module_len, window);  // a refused module leaves the record alone

    EXPECT_EQ(mod_install(m, module.data(), 0), 0u);
    EXPECT_EQ(m.module_len, 0u);
}
