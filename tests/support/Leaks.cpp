// What LeakSanitizer need not tell of.
#ifdef __SANITIZE_ADDRESS__
/// The system's font lists live as long as the program.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT
  return "leak:libfontconfig\n";
}
#endif
