// What the address sanitizer is to overlook in every program with a handset.

#ifdef __SANITIZE_ADDRESS__
// The FUSE library loses a request that is under way when its mount goes.
extern "C" const char* __lsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libfuse3";
}
#endif
