#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// The children of this process that code other than `ProcessTNG` starts and waits for. The collector of `ProcessTNG`
/// does not reap a kept child and does not warn about it.
///
///     vesk::KeptChildren::Start start;         // std::bad_alloc without memory, before there is a child
///     pid_t const child = posix_spawn(...) == 0 ? ... : -1;
///     start.keep(child);
///     ...
///     waitpid(child, &status, 0);
///     vesk::KeptChildren::release(child);
///
/// Reap a kept child soon after its end: until then the collector looks for the ends of its own children only every
/// 10 ms. Any thread may call these operations. They do not block, and report nothing.
class VESK_API KeptChildren {
public:
    /// The start of a child. While it exists, the collector reaps no child that it does not know.
    class VESK_API Start : private tarnbase::NonCopyable {
    public:
        /// Throws `std::bad_alloc` without memory to keep a child.
        Start();
        ~Start();

        /// Keeps a child. Can be called once. Does nothing for -1, the id of a child that was not started.
        void keep(int child) noexcept;

    private:
        bool m_has_kept = false;
    };

    /// Ends the keeping of a child that has been reaped. A child that was kept twice stays kept once.
    static void release(int child) noexcept;

    /// Returns whether the child is kept, or may be a child of a start that is not over.
    static bool isKept(int child) noexcept;
};

} // namespace vesk
