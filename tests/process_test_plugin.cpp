// Calls the test program while the loader is locked.
extern "C" void WhileLoading();

[[gnu::constructor]] static void Load() { WhileLoading(); }
