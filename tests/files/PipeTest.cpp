#include "FileTests.h"

VESK_INJECT_ERRNO(int, -1, pipe, (int* ends), (ends))

namespace {

using namespace support;

static_assert(!std::is_polymorphic_v<Pipe> && !std::is_copy_constructible_v<Pipe>);
static_assert(sizeof(Pipe) == 2 * sizeof(int));

/// One end of a pipe, and its operations.
struct End : NamedRow {
    int (Pipe::*get)() const;
    int (Pipe::*take)();
    bool (Pipe::*close)();
};

End const READ_END{"read", &Pipe::getReadEnd, &Pipe::takeReadEnd, &Pipe::closeReadEnd};
End const WRITE_END{"write", &Pipe::getWriteEnd, &Pipe::takeWriteEnd, &Pipe::closeWriteEnd};

auto const PIPE_ROWS = rowsOf({
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOSPC}, SysErrorId::OUT_OF_MEMORY},
    {{ENOSYS}, SysErrorId::NOT_IMPLEMENTED},
    {{EFAULT, EINTR, ENOMEM}, SysErrorId::UNCLASSIFIED},
});
VESK_TEST_TABLE(PipeCreation, failureLeavesBothEndsClosed, testing::Test, PIPE_ROWS) {
    Calls const calls(inject_pipe, 1, GetParam().error);
    Pipe pipe;
    EXPECT_TRUE(GetParam().isPending());
    EXPECT_EQ(-1, pipe.getReadEnd());
    EXPECT_EQ(-1, pipe.getWriteEnd());
    EXPECT_FALSE(pipe.closeReadEnd());
    EXPECT_FALSE(pipe.closeWriteEnd());
}

TEST(Pipe, isNotCreatedWithoutDescriptorsLeft) {
    expectInChild([] {
        rlimit const limit{4, 4};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        Pipe const pipe;
        EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
        EXPECT_EQ(-1, pipe.getReadEnd());
        EXPECT_EQ(-1, pipe.getWriteEnd());
    });
}

class PipeEnd : public testing::TestWithParam<End> {
protected:
    int get() const { return ((*m_pipe).*GetParam().get)(); }
    int take() { return ((*m_pipe).*GetParam().take)(); }
    bool close() { return ((*m_pipe).*GetParam().close)(); }
    int getOther() const { return ((*m_pipe).*m_other.get)(); }

    std::optional<Pipe> m_pipe{std::in_place};
    End m_other = GetParam().get == READ_END.get ? WRITE_END : READ_END;
};

TEST_P(PipeEnd, blocksStaysOpenAcrossExecAndIsClosedAloneAndOnce) {
    int const fd = get();
    int const other = getOther();
    EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    Calls const calls(inject_close, 1);
    EXPECT_FALSE(close());
    EXPECT_EQ(-1, get());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(other, getOther());
    EXPECT_TRUE(isOpen(other));
    EXPECT_FALSE(close()) << "nothing is left to do";
}

TEST_P(PipeEnd, thatIsNoLongerOpenFailsToClose) {
    ::close(get());
    EXPECT_TRUE(close());
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EBADF));
}

TEST_P(PipeEnd, isClosedByTheDestructorUnlessItWasTaken) {
    int const fd = take();
    int const other = getOther();
    EXPECT_EQ(-1, get());
    EXPECT_EQ(-1, take());
    m_pipe.reset();
    EXPECT_FALSE(isOpen(other));
    EXPECT_EQ(0, ::close(fd));
}

INSTANTIATE_TEST_SUITE_P(ends, PipeEnd, testing::Values(READ_END, WRITE_END), byName);

class PipeClose : public testing::TestWithParam<std::tuple<int, End>> {};

TEST_P(PipeClose, failureIsReportedAndCountsAsClosed) {
    auto const& [error, end] = GetParam();
    Pipe pipe;
    int const fd = (pipe.*end.get)();
    Fault const fault(inject_close, error);
    EXPECT_TRUE((pipe.*end.close)());
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
    EXPECT_EQ(-1, (pipe.*end.get)());
    EXPECT_FALSE((pipe.*end.close)());
    EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    errors, PipeClose,
    testing::Combine(testing::Values(EINTR, EBADF, EIO), testing::Values(READ_END, WRITE_END)));

/// One warning, and whether a report was pending when it came.
struct Warning {
    std::string text;
    bool pending;
};

bool noteWarning(std::GlobalErrorHandler::Event const& event, void* context) {
    std::string const text = std::string(event.file) + " " + event.function + ": " + event.message;
    static_cast<std::vector<Warning>*>(context)->push_back({text, std::ErrorStorage::isError(false)});
    return true;
}

TEST(Pipe, destructorAcknowledgesBeforeTheWarningOfTheReadEndAndAfterThatOfTheWriteEnd) {
    std::vector<Warning> warnings;
    std::GlobalErrorHandler::Hook const hook{noteWarning, &warnings};
    auto const* const previous = std::GlobalErrorHandler::setHook(&hook);
    {
        Pipe const pipe;
        close(pipe.getReadEnd());
        close(pipe.getWriteEnd());
    }
    std::GlobalErrorHandler::setHook(previous);
    ASSERT_EQ(2U, warnings.size());
    EXPECT_EQ("framework/src/vesk/posix/Pipe ~Pipe: Couldn't close unused pipe read end", warnings[0].text);
    EXPECT_FALSE(warnings[0].pending);
    EXPECT_EQ("framework/src/vesk/posix/Pipe ~Pipe: Couldn't close unused pipe write end", warnings[1].text);
    EXPECT_TRUE(warnings[1].pending);
}

TEST(Pipe, closedEndIsTheEndForTheReaderAndABrokenPipeForTheWriter) {
    signal(SIGPIPE, SIG_IGN);
    Pipe source;
    fill(source, "x");
    EXPECT_FALSE(source.closeWriteEnd());
    EXPECT_EQ("x", drain(source));
    char c = 0;
    EXPECT_EQ(0, read(source.getReadEnd(), &c, 1));
    Pipe sink;
    EXPECT_FALSE(sink.closeReadEnd());
    EXPECT_EQ(-1, write(sink.getWriteEnd(), "x", 1));
    EXPECT_EQ(EPIPE, errno);
}

} // namespace
