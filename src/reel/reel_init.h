// The run driver: start-up, the loop over tape blocks, the interrupt key and
// the ways a run ends. Every run ends in mrv_exit with status 1, a finished
// restore included.
#pragma once

#include <cstdint>
#include <string_view>

inline constexpr char REEL_PROGRAM[] = "REEL_INTAKE";
inline constexpr char REEL_VERSION[] = "2.2.2";
inline constexpr char REEL_BANNER[] = "\nREEL_INTAKE Version 2.2.2  \tMAR. 17 1992\n\n";
static_assert(std::string_view(REEL_BANNER).find(REEL_VERSION) != std::string_view::npos);
inline constexpr char REEL_FINISHED[] = "\n\t\tREEL_INTAKE is finished!!!\n\n";
// The usage text names -F, which does not exist, and leaves out -E, -H, -S
// and -T, which do. Operators' scripts know it as it is.
inline constexpr char REEL_USAGE[] =
    "Usage: REEL_INTAKE [-Lnum] [-Fname] [-Unum] [-M0123] [-Aname]\n"
    "\t [-Bname] [-Cname] [-R ALL|name] [-D] [-O] [-G B|C] [-Knum] [-Xstr]\n";

// main's body: never returns.
[[noreturn]] int reel_main(int argc, char** argv);

// The platform start of main: open-file limit, default modes.
void reel_platform_start();
// Library start-up, banner first.
void reel_startup();
// Reads blocks and hands them to the dispatcher until the end of the save or
// an operator's quit, then ends the run.
[[noreturn]] void reel_block_loop(unsigned char* buffer);
// The close-down of a run that has read tape: the plan's end in analyse
// mode, else account close-down and the finished line. Also the operator's
// "E" at a reel prompt.
[[noreturn]] void reel_end_run();

// Prints the message with "%s\n", the usage text, cleans up the process and
// exits with status 1. Messages mostly end in a newline already, so an empty
// line stands between message and usage.
[[noreturn]] void reel_fatal(const char* message);
// Closes the tape device, prints the finished line, exits with status 1.
[[noreturn]] void reel_finish();

// Interrupt key: asks the operator whether to quit; a quit takes effect at
// the next file boundary. Inside a protected section of the library the
// signal is only noted as pending.
void reel_break_handler(int signal_number);
void reel_install_break_handler();

// One character typed by the operator. On a terminal, type-ahead is dropped
// first; from a pipe or file, characters are taken in order (line ends are
// passed over) so that answers can be scripted. End of input ends the run.
int reel_get_answer();
