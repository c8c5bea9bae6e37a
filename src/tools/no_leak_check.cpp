// Linked into the programs that run set-group-ID, in address-sanitizer builds only. Such a
// program is non-dumpable: the sanitizer can neither read its options from /proc/self/environ
// nor stop the program's threads to look for leaks, and would end every run with a fatal error.
// The same code's leaks are checked where it runs inside the test programs.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }
