#include "LoopSupport.h"
#include "support/TempFolder.h"

#include <vesk/loop/FileWatch.h>

#include <filesystem>
#include <fstream>

namespace {

using namespace support;
using vesk::loop::FileEvent;
using vesk::loop::FileWatch;
namespace fs = std::filesystem;

class FileWatchTest : public testing::Test {
protected:
    FileWatchTest() { EXPECT_TRUE(watch.add(folder.getPath())); }

    static void write(std::string const& path) { std::ofstream(path) << "x"; }
    std::string at(char const* name) const { return folder / name; }
    std::string nameOf(fs::path const& path) const {
        return path == folder.getPath() ? "." : path.filename().string();
    }
    /// Returns the events as text as soon as there are as many.
    std::vector<std::string> wait(size_t count) {
        EXPECT_TRUE(runUntil(loop, [&] { return log.size() >= count; }));
        return std::exchange(log, {});
    }

    TempFolder folder;
    Loop loop;
    std::vector<std::string> log;
    FileWatch watch = valueOf(FileWatch::open(loop, [this](FileEvent const& event) {
        constexpr char const* KINDS[] = {"created", "changed", "attributes", "removed",
                                         "renamed", "gone",    "overflow"};
        log.push_back(
            std::string(KINDS[event.kind]) + ' ' + nameOf(event.path) + (event.is_folder ? "/" : "") +
            (event.old_path.empty() ? "" : " from " + nameOf(event.old_path)));
    }));
};

using Texts = std::vector<std::string>;

TEST_F(FileWatchTest, reportsWhatHappensInAFolder) {
    write(at("a"));
    EXPECT_EQ((Texts{"created a", "changed a"}), wait(2));
    fs::rename(at("a"), at("b"));
    EXPECT_EQ((Texts{"renamed b from a"}), wait(1));
    EXPECT_EQ(0, chmod(at("b").c_str(), 0600));
    EXPECT_EQ((Texts{"attributes b"}), wait(1));
    fs::create_directory(at("d"));
    fs::remove(at("b"));
    EXPECT_EQ((Texts{"created d/", "removed b"}), wait(2));
}

TEST_F(FileWatchTest, moveOverTheBorderIsAnEndOrABegin) {
    TempFolder const other;
    write(at("a"));
    write(at("b"));
    EXPECT_EQ(4u, wait(4).size());
    fs::rename(at("a"), other / "a");
    EXPECT_EQ((Texts{"removed a"}), wait(1));
    fs::rename(other / "a", at("c"));
    EXPECT_EQ((Texts{"created c"}), wait(1));
    fs::rename(at("b"), other / "b");
    fs::rename(other / "b", at("b"));
    EXPECT_EQ((Texts{"removed b", "created b"}), wait(2));
    EXPECT_TRUE(watch.add(other.getPath()));
    fs::rename(at("c"), other / "d");
    EXPECT_EQ((Texts{"renamed d from c"}), wait(1)) << "between two folders that are watched";
}

TEST_F(FileWatchTest, watchedPathCanGoAndBeRemoved) {
    write(at("a"));
    EXPECT_TRUE(watch.remove(folder.getPath()));
    EXPECT_TRUE(watch.add(at("a")));
    write(at("b"));
    fs::remove(at("a"));
    auto const events = wait(2);
    EXPECT_EQ("gone a", events.back()) << events.front();
    EXPECT_TRUE(watch.remove(at("a")).error() == std::errc::no_such_file_or_directory);
    EXPECT_TRUE(watch.add(at("b")));
    fs::rename(at("b"), at("c"));
    EXPECT_EQ((Texts{"gone b"}), wait(1));
    write(at("c"));
    EXPECT_TRUE(loop.runOnce(20ms));
    EXPECT_EQ(Texts(), log);
}

TEST_F(FileWatchTest, overflowIsReported) {
    size_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit == 0 || limit > 70000) {
        GTEST_SKIP() << "the queue of this system is too long to be filled: " << limit;
    }
    // Different names: the system joins events that are alike.
    for (size_t i = 0; i <= limit + 1; ++i) {
        write(at(i % 2 == 0 ? "a" : "b"));
    }
    EXPECT_TRUE(runUntil(loop, [this] { return !log.empty() && log.back() == "overflow "; }));
}

TEST_F(FileWatchTest, reportsWhyAPathIsRefused) {
    EXPECT_TRUE(watch.add("/no/such/path").error() == std::errc::no_such_file_or_directory);
    EXPECT_TRUE(FileWatch().add("/").error() == std::errc::bad_file_descriptor);
}

} // namespace
