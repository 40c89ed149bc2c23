// Part of every program for the board's processor: what it takes for a program to carry the C++
// runtime in itself rather than need libraries on the board.
#include <stdlib.h>
#include <unwind.h>

namespace {

_Unwind_Reason_Code StopAtOnce(_Unwind_Context*, void*) {
    return _URC_END_OF_STACK;
}

// The C library unwinds a cancelled thread with the unwinder in libgcc_s, which it loads for that.
// A landing pad then enters the program's own unwinder in the middle of the work, and that aborts
// unless it has filled its table of registers, which its first use does: here, before main.
__attribute__((constructor)) void FillRegisterTable() {
    _Unwind_Backtrace(StopAtOnce, nullptr);
}

}  // namespace

// In place of the library's handler, which would bring a demangler of 60 kB to print the name of an
// exception that nobody throws.
namespace __gnu_cxx {
[[noreturn]] void __verbose_terminate_handler() {
    abort();
}
}  // namespace __gnu_cxx
