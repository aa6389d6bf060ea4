#include "support/CleanEnd.h"
#include "support/TempFolder.h"
#include "support/Testing.h"

#include <vesk/SecureRandom.h>
#include <vesk/StreamBinFileR.h>

namespace {

// The file that replaces the devices, and the device and flags of the last open.
char const* s_device = nullptr;
std::string s_path;
int s_flags = 0;
// The most bytes of one read; 0 is no limit.
size_t s_most = 0;

VESK_UNWATCHED char const* replaceDevice(char const* path, int flags) {
    if (s_device == nullptr) {
        return path;
    }
    s_path = path;
    s_flags = flags;
    return s_device;
}

} // namespace

VESK_INJECT_OPEN(path = replaceDevice(path, flags))

VESK_INJECT_NOTING(
    ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size),
    size = s_most != 0 && s_most < size ? s_most : size)

namespace {

using namespace support;
using namespace vesk;
using StreamErrorId = std::IBinStreamBase::StreamErrorId;

/// Replaces the devices by a file with the bytes "0123456789ABCDEF".
struct FakeDevice : FileInstead {
    FakeDevice() : FileInstead(s_device, "0123456789ABCDEF") {}
    ~FakeDevice() { s_most = 0; }
};

/// Twenty bytes that are not in the fake device.
struct Block {
    Block() { memset(bytes, '.', sizeof bytes); }
    std::string getText() const { return {bytes, bytes + sizeof bytes}; }

    unsigned char bytes[20];
};

bool areDifferent(std::vector<unsigned long long> values) {
    std::sort(values.begin(), values.end());
    return std::adjacent_find(values.begin(), values.end()) == values.end();
}

TEST(SecureRandom, isAStreamWithoutFieldsOfItsOwn) {
    static_assert(std::is_base_of_v<StreamBinFileR, SecureRandom>);
    static_assert(sizeof(SecureRandom) == sizeof(StreamBinFileR));
    SecureRandom random(false);
    EXPECT_FALSE(random.isInputBuffered());
    StreamBinFileR const& base = random;
    EXPECT_TRUE(base.isValid());
    EXPECT_FALSE(random.close());
    EXPECT_FALSE(random.isValid());
}

TEST(SecureRandom, opensTheDeviceOfTheRequestedStrength) {
    FakeDevice const device;
    for (auto const& [strong, path] : {std::pair(true, "/dev/random"), {false, "/dev/urandom"}}) {
        SecureRandom const random(strong);
        EXPECT_EQ(path, s_path);
        EXPECT_EQ(O_RDONLY, s_flags & (O_ACCMODE | O_NONBLOCK | O_CREAT)) << path;
        EXPECT_TRUE(random.isValid()) << path;
    }
}

TEST(SecureRandom, failedOpenIsReportedAndTheObjectIsInvalid) {
    for (ErrnoCase const& row :
         {badPath(ENOENT),
          accessDenied(EACCES),
          {EMFILE, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
          {ENXIO, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
          {ENOMEM, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED}}) {
        SCOPED_TRACE(strerrorname_np(row.error));
        std::optional<SecureRandom> random;
        {
            Fault const fault(inject_open, row.error);
            random.emplace(false);
        }
        EXPECT_FALSE(random->isValid());
        EXPECT_TRUE(row.isPending("/dev/urandom"));
        unsigned char value = 7;
        EXPECT_TRUE(random->getRandByte(value));
        EXPECT_EQ(7, value);
        EXPECT_TRUE(chainIs({std::CommonErrorId::CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
    }
}

struct ReadRow : NamedRow {
    size_t most; ///< Bytes per read.
    unsigned int size;
    int error; ///< Of the second and third reads.
    int calls;
    std::string text;                         ///< The buffer.
    std::string next;                         ///< The next three bytes.
    std::vector<ExpectedReport> reports = {}; ///< Of the failure, if any.
};

std::vector<ExpectedReport> const FAILED = {
    {SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))},
    StreamErrorId::TRANSFER_FAILED};

ReadRow const READS[] = {
    {"one", 0, 5, 0, 1, "01234...............", "567"},
    {"many", 3, 10, 0, 4, "0123456789..........", "ABC"},
    {"interrupted", 3, 6, EINTR, 4, "012345..............", "678"},
    {"failed", 3, 10, EIO, 2, "012.................", "345", FAILED},
    {"ended", 0, 20, 0, 2, "0123456789ABCDEF....", "", {StreamErrorId::END_OF_STREAM}},
};

VESK_TEST_TABLE(SecureRandomReads, fillTheBufferInTheOrderOfTheDeviceUntilOneFails, testing::Test, READS) {
    FakeDevice const device;
    SecureRandom random(false);
    s_most = GetParam().most;
    Block block;
    {
        Fault const calls(inject_read, GetParam().error, 2, 2);
        EXPECT_EQ(!GetParam().reports.empty(), random.getRandData(block.bytes, GetParam().size));
        EXPECT_EQ(GetParam().calls, calls.getCalls());
    }
    EXPECT_EQ(GetParam().text, block.getText());
    EXPECT_TRUE(chainIs(GetParam().reports));
    EXPECT_TRUE(random.isValid()) << "the next try may succeed";
    EXPECT_EQ(GetParam().next.empty(), random.getRandData(block.bytes, 3));
    EXPECT_EQ(GetParam().next, block.getText().substr(0, GetParam().next.size()));
    EXPECT_EQ(GetParam().text.substr(3), block.getText().substr(3));
    std::ErrorStorage::ack();
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
    EXPECT_EQ(Block().getText(), block.getText());
}

TEST(SecureRandom, nullBufferIsRefusedByTheSystem) {
    SecureRandom random(false);
    EXPECT_TRUE(random.getRandData(nullptr, 4));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EFAULT))},
         StreamErrorId::UNCLASSIFIED}));
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
    EXPECT_TRUE(chainIs({StreamErrorId::END_OF_STREAM}));
    EXPECT_EQ(0, memcmp(&word, "DEF4", 4));
    EXPECT_TRUE(random.getRandUInt64(long_word));
    EXPECT_TRUE(chainIs({StreamErrorId::END_OF_STREAM}));
}

TEST(SecureRandom, qualityIsZero) {
    SecureRandom const random(false);
    EXPECT_EQ(0, random.GetQuality());
}

TEST(SecureRandom, returnsDifferentNumbersAndEvenlySetBits) {
    for (bool const strong : {false, true}) {
        SCOPED_TRACE(strong);
        SecureRandom random(strong);
        ASSERT_TRUE(random.isValid());
        std::vector<unsigned long long> values(100);
        for (unsigned long long& value : values) {
            EXPECT_FALSE(random.getRandUInt64(value));
        }
        EXPECT_TRUE(areDifferent(values));
        // Each bit is set in about half of the bytes: 32,768 of 65,536, give or take 20 standard deviations.
        std::vector<unsigned char> data(65536);
        EXPECT_FALSE(random.getRandData(data.data(), static_cast<unsigned int>(data.size())));
        for (int bit = 0; bit < 8; ++bit) {
            auto const count = std::count_if(
                data.begin(), data.end(), [bit](unsigned char byte) { return (byte >> bit & 1) != 0; });
            EXPECT_NEAR(32768.0, static_cast<double>(count), 2560.0) << bit;
        }
    }
}

TEST(SecureRandom, objectsOfDifferentThreadsReturnDifferentNumbers) {
    std::vector<unsigned long long> values(8);
    runInThreads(8, [&values](int number) {
        SecureRandom random(false);
        EXPECT_FALSE(random.getRandUInt64(values[static_cast<size_t>(number)]));
    });
    EXPECT_TRUE(areDifferent(values));
}

} // namespace
