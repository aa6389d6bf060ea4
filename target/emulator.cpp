// Stands on the target for the emulator, with which tests start some of their programs: qemu-arm-static -L FOLDER PROGRAM
// [ARGUMENT...]. No shell script, which would change the environment. The program gets the emulator's path as its own, as
// the tests expect it of a process that they have started with this path.
#include <unistd.h>

int main(int count, char** arguments) {
    if (count > 3) {
        char const* const program = arguments[3];
        arguments[3] = arguments[0];
        execv(program, arguments + 3);
    }
    return 127;
}
