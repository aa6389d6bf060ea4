#include "support/Chain.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/FileAccessError.h>
#include <vesk/SecureRandom.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

// The file that stands for the devices, the device that was asked for, and how.
char const* s_device = nullptr;
std::string s_path;
int s_flags = 0;
// How much one read gives; 0 is as much as there is.
size_t s_most = 0;

VESK_UNWATCHED char const* standIn(char const* path, int flags) {
    if (s_device == nullptr) {
        return path;
    }
    s_path = path;
    s_flags = flags;
    return s_device;
}

} // namespace

VESK_INJECT_OPEN(path = standIn(path, flags))

support::Injected inject_read("read");
extern "C" VESK_UNWATCHED ssize_t read(int fd, void* buffer, size_t size) {
    int error = 0;
    if (inject_read.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<ssize_t (*)(int, void*, size_t)>(inject_read.getReal())(
        fd, buffer, s_most != 0 && s_most < size ? s_most : size);
}

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::FileAccessError;
using vesk::SecureRandom;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using StreamErrorId = std::IBinStreamBase::StreamErrorId;

/// A file of the test's own in place of the devices, with the bytes "0123456789ABCDEF".
class FakeDevice {
public:
    FakeDevice() : m_file(m_folder.makeFile("device", "0123456789ABCDEF")) { s_device = m_file.c_str(); }
    ~FakeDevice() {
        s_device = nullptr;
        s_most = 0;
    }

    FakeDevice(FakeDevice const&) = delete;
    FakeDevice& operator=(FakeDevice const&) = delete;

private:
    support::TempFolder m_folder;
    std::string m_file;
};

/// Sixteen bytes that no device gives.
struct Block {
    Block() { memset(bytes, '.', sizeof bytes); }
    std::string getText() const { return {bytes, bytes + sizeof bytes}; }

    unsigned char bytes[16];
};

bool areDifferent(std::vector<unsigned long long> values) {
    std::sort(values.begin(), values.end());
    return std::adjacent_find(values.begin(), values.end()) == values.end();
}

TEST(SecureRandom, isAStreamWithoutFieldsOfItsOwn) {
    static_assert(std::is_base_of_v<vesk::StreamBinFileR, SecureRandom>);
    static_assert(sizeof(SecureRandom) == sizeof(vesk::StreamBinFileR));
    SecureRandom const random(false);
    EXPECT_FALSE(random.isInputBuffered());
    vesk::StreamBinFileR const& base = random;
    EXPECT_TRUE(base.isValid());
}

TEST(SecureRandom, opensTheDeviceThatWaitsWhenItIsToBeStrong) {
    FakeDevice const device;
    SecureRandom const random(true);
    EXPECT_EQ("/dev/random", s_path);
    EXPECT_EQ(O_RDONLY, s_flags & (O_ACCMODE | O_NONBLOCK | O_CREAT));
    EXPECT_TRUE(random.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST(SecureRandom, opensTheDeviceThatDoesNotWaitOtherwise) {
    FakeDevice const device;
    SecureRandom const random(false);
    EXPECT_EQ("/dev/urandom", s_path);
    EXPECT_EQ(O_RDONLY, s_flags & (O_ACCMODE | O_NONBLOCK | O_CREAT));
    EXPECT_TRUE(random.isValid());
    EXPECT_TRUE(chainIs({}));
}

struct OpenRow {
    int error;
    int sys_id;
    int access_id;
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << strerror(row.error);
}

class SecureRandomErrnos : public testing::TestWithParam<OpenRow> {};

TEST_P(SecureRandomErrnos, ofOpeningLeaveItInvalidAndPending) {
    auto const random = [] {
        Fault const fault(inject_open, GetParam().error);
        return std::make_unique<SecureRandom>(false);
    }();
    EXPECT_FALSE(random->isValid());
    EXPECT_TRUE(chainIs(
        {{SysError, GetParam().sys_id, rowText(SysError, GetParam().sys_id, systemText(GetParam().error))},
         {FileAccessError, GetParam().access_id,
          rowText(FileAccessError, GetParam().access_id, "/dev/urandom")}}));
    unsigned char value = 7;
    EXPECT_TRUE(random->getRandByte(value));
    EXPECT_EQ(7, value);
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, SecureRandomErrnos,
    testing::Values(
        OpenRow{ENOENT, 2, 0}, OpenRow{EACCES, 7, 3}, OpenRow{EMFILE, 0, 6}, OpenRow{ENXIO, 16, 8},
        OpenRow{ENOMEM, 1, 9}));

TEST(SecureRandom, isNotValidWhenItIsClosed) {
    SecureRandom random(false);
    EXPECT_TRUE(random.isValid());
    EXPECT_FALSE(random.close());
    EXPECT_FALSE(random.isValid());
}

TEST(SecureRandom, givesTheBytesOfTheDeviceInTheirOrder) {
    FakeDevice const device;
    SecureRandom random(false);
    Block block;
    EXPECT_FALSE(random.getRandData(block.bytes, 5));
    EXPECT_EQ("01234...........", block.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(SecureRandom, readsAsOftenAsItTakes) {
    FakeDevice const device;
    SecureRandom random(false);
    s_most = 3;
    Block block;
    Fault const calls(inject_read, 0);
    EXPECT_FALSE(random.getRandData(block.bytes, 10));
    EXPECT_EQ(4, calls.getCalls());
    EXPECT_EQ("0123456789......", block.getText());
}

TEST(SecureRandom, sizeOfZeroReadsNothing) {
    SecureRandom random(false);
    Fault const fault(inject_read, EIO, 1, Fault::FOREVER);
    Block block;
    EXPECT_FALSE(random.getRandData(block.bytes, 0));
    EXPECT_FALSE(random.getRandData(nullptr, 0));
    EXPECT_FALSE(random.close());
    EXPECT_FALSE(random.getRandData(block.bytes, 0)) << "even with the device closed";
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_EQ("................", block.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(SecureRandom, whatWasReadBeforeAFailureStaysInTheBuffer) {
    FakeDevice const device;
    SecureRandom random(false);
    s_most = 3;
    Block block;
    Fault const fault(inject_read, EIO, 3);
    EXPECT_TRUE(random.getRandData(block.bytes, 10));
    EXPECT_EQ("012345..........", block.getText());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))},
         {std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_TRUE(random.isValid()) << "the next try may succeed";
    EXPECT_FALSE(random.getRandData(block.bytes, 3));
    EXPECT_EQ("678345..........", block.getText());
}

TEST(SecureRandom, signalDoesNotEndIt) {
    FakeDevice const device;
    SecureRandom random(false);
    s_most = 3;
    Block block;
    Fault const fault(inject_read, EINTR, 2, 2);
    EXPECT_FALSE(random.getRandData(block.bytes, 6));
    EXPECT_EQ("012345..........", block.getText());
}

TEST(SecureRandom, deviceThatEndsIsAFailure) {
    FakeDevice const device;
    SecureRandom random(false);
    Block block;
    EXPECT_FALSE(random.getRandData(block.bytes, 14));
    EXPECT_TRUE(random.getRandData(block.bytes, 10));
    EXPECT_EQ("EF", block.getText().substr(0, 2));
    EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
}

TEST(SecureRandom, bufferThatIsNoneIsRefusedByTheSystem) {
    SecureRandom random(false);
    EXPECT_TRUE(random.getRandData(nullptr, 4));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EFAULT))},
         {std::IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
}

TEST(SecureRandom, numbersAreFilledInMemoryOrder) {
    FakeDevice const device;
    SecureRandom random(false);
    unsigned char byte = 0;
    unsigned int word = 0;
    unsigned long long long_word = 0;
    EXPECT_FALSE(random.getRandByte(byte));
    EXPECT_FALSE(random.getRandUInt32(word));
    EXPECT_FALSE(random.getRandUInt64(long_word));
    EXPECT_EQ('0', byte);
    EXPECT_EQ(0, memcmp(&word, "1234", 4));
    EXPECT_EQ(0, memcmp(&long_word, "56789ABC", 8));
    // Three bytes are left.
    EXPECT_TRUE(random.getRandUInt32(word));
    EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
    EXPECT_EQ(0, memcmp(&word, "DEF4", 4));
    EXPECT_TRUE(random.getRandUInt64(long_word));
    EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
}

TEST(SecureRandom, qualityIsNothing) {
    SecureRandom const random(false);
    EXPECT_EQ(0, random.GetQuality());
}

// ---- the kernel's devices ----

class SecureRandomDevices : public testing::TestWithParam<bool> {};

TEST_P(SecureRandomDevices, giveWhatNobodyGuesses) {
    SecureRandom random(GetParam());
    ASSERT_TRUE(random.isValid());
    std::vector<unsigned long long> values(100);
    for (unsigned long long& value : values) {
        EXPECT_FALSE(random.getRandUInt64(value));
    }
    EXPECT_TRUE(areDifferent(values));
    // Each bit is set in about half of so many bytes: 32,768 of 65,536, give or take 20 standard deviations.
    std::vector<unsigned char> data(65536);
    EXPECT_FALSE(random.getRandData(data.data(), static_cast<unsigned int>(data.size())));
    for (int bit = 0; bit < 8; ++bit) {
        auto const count = std::count_if(
            data.begin(), data.end(), [bit](unsigned char byte) { return (byte >> bit & 1) != 0; });
        EXPECT_NEAR(32768.0, static_cast<double>(count), 2560.0);
    }
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(All, SecureRandomDevices, testing::Bool(), [](auto const& row) {
    return row.param ? "strong" : "fast";
});

TEST(SecureRandom, threadsUseObjectsOfTheirOwn) {
    std::vector<unsigned long long> values(8);
    std::vector<std::thread> threads;
    for (unsigned long long& value : values) {
        threads.emplace_back([&value] {
            SecureRandom random(false);
            EXPECT_FALSE(random.getRandUInt64(value));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(areDifferent(values));
}

} // namespace
