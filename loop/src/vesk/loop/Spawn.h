#pragma once

#include <csignal>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vesk::loop::detail {

/// What the start of a program was doing when it failed.
enum class Step : int { CREATE, DESCRIPTORS, SESSION, GROUP, USER, LIMITS, FOLDER, EXECUTE };

struct Failure {
    Step step = Step::CREATE;
    int error = 0;
};

/// All that the child needs, ready before it exists: it must not allocate.
struct Plan {
    std::vector<std::string> paths; ///< To execute, in this order.
    std::vector<char*> argv;
    std::vector<char*> envp;
    struct Redirection {
        int target;
        int source;
    };
    std::vector<Redirection> redirections; ///< In the order of their targets, each one once.
    char const* folder = nullptr;
    bool sets_user = false;
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
    std::vector<std::pair<int, rlim_t>> limits;
    bool sets_process_group = false;
    pid_t process_group = 0;
    bool is_session = false;
};

/// Starts the program. Returns its process, or -1 and stores why.
pid_t spawn(Plan& plan, Failure& failure) noexcept;

} // namespace vesk::loop::detail
