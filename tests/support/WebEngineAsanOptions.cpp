// Linked into the test programs that host the web engine. Under AddressSanitizer, the engine's own
// code (a system library built without the sanitizer, with its own allocator conventions) frees some
// objects with a sized delete whose size differs from the allocation's, when a page is torn down. That
// report is about the library, not about us, and the sanitizer cannot suppress it per library, so this
// one check is off in these programs only; every other check (our buffer overflows, use after free,
// leaks) stays on, and every other test program keeps this check too.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() { return "new_delete_type_mismatch=0"; }
#endif
