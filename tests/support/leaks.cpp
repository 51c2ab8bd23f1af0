/* What the leak checker is to pass over: memory that the library keeps on purpose. */
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() { return "leak:arista_fini\n"; /* the closing summary's text */ }
