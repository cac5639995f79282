// The crash-dump library. The worker loads it and calls nothing in it; an installation may put another one of
// the same name in its place. The name below only lets a person see with nm or a debugger which one is
// loaded.
extern "C" const char* CrashDumpName() {
    return "CrashDump 1.13.0";
}
