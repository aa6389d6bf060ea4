#pragma once

#include "Spawn.h"

#include <vesk/loop/Command.h>

#include <vesk/common/UniqueFd.h>

#include <array>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vesk::loop::detail {

using vesk::detail::UniqueFd;

/// Returns how a child ended.
Exit toExit(pid_t child, siginfo_t const& info) noexcept;
/// Waits for a child, and reaps it. Without a child how it ended is unknown.
Exit waitFor(pid_t child);
/// Reaps children that have no owner any more, in a thread unless they have ended.
void reapLater(std::vector<pid_t> const& children) noexcept;

/// The caller's ends of the streams of a program, and what is written to them or was read from them.
class Streams {
public:
    static constexpr size_t COUNT = 3;

    /// Returns the caller's end of a stream that is written or collected, or -1.
    int get(size_t stream) const noexcept { return m_is_served[stream] ? m_ends[stream].get() : -1; }
    /// Writes or reads what is possible without blocking. Returns false when the end can be closed.
    bool serve(size_t stream, Output& output);

    std::array<UniqueFd, COUNT> m_ends;
    std::array<bool, COUNT> m_is_served{};
    std::array<size_t, COUNT> m_limits{};
    std::string m_text;
    size_t m_written = 0;

private:
    bool feed();
    bool collect(size_t stream, std::string& text, bool& is_cut);
};

/// Programs that run. They are reaped later, unless their new owner has taken them.
struct Started {
    Started() noexcept = default;
    Started(Started&&) noexcept = default;
    Started& operator=(Started&&) = delete;
    ~Started() { reapLater(pids); }

    std::vector<pid_t> pids;
    Streams streams;
};

/// The start of one command or pipeline.
class Start {
public:
    /// Starts all programs.
    static Result<Started> run(Command const& command);
    /// Moves the ends of the pipes to their owner.
    template <typename Owner>
    static void giveEnds(Streams& streams, Owner& owner) noexcept {
        Fd* const ends[] = {&owner.in, &owner.out, &owner.err};
        for (size_t i = 0; i < Streams::COUNT; ++i) {
            if (!streams.m_is_served[i]) {
                *ends[i] = Fd(streams.m_ends[i].release());
            }
        }
    }
    static Child makeChild(Started started);

private:
    struct Fault {
        std::string what; ///< Empty for none.
        int error = 0;
    };

    explicit Start(Command const& command) noexcept : m_command(command) {}
    Result<> start(Started& started, UniqueFd& input, bool is_last);
    Fault openStreams(Streams& streams, UniqueFd& input, bool is_last);
    Fault open(size_t number, Stream const& stream, Streams& streams);
    Fault openFile(size_t number, Stream const& stream);
    Fault openPipe(size_t number, UniqueFd& own, bool is_blocking);
    void redirect(size_t number, int source);
    void makePlan();
    void makeEnvironment();
    void makePaths();
    bool hasNull() const noexcept;

    Command const& m_command;
    Plan m_plan;
    std::vector<std::string> m_environment;
    std::vector<UniqueFd> m_opened; ///< The program's ends.
};

} // namespace vesk::loop::detail
