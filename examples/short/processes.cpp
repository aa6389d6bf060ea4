#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::ProcessTNG process;
    if (process.setExecutable("/bin/sh")) {
        return 1;
    }
    process.setArguments({"-c", "exit 7"});
    if (process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID) {
        return 1;
    }
    vesk::ProcessTNG::ExitState state;
    if (process.wait(state, false, 0)) {
        return 1;
    }
    std::cout << "the child ended with " << state.status << '\n';
}
