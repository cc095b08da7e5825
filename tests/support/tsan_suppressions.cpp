// Part of each test program that decodes on several threads.
//
// FFmpeg is not instrumented: the thread sanitizer sees the mutexes of its decoder threads but not
// the atomics between them, which count a picture's buffers (the last reference frees them, on
// whatever thread) and report how far a picture is decoded.
extern "C" const char* __tsan_default_suppressions();  // NOLINT: the sanitizer's name
extern "C" const char* __tsan_default_suppressions() {
    return "race:libavutil.so\n"
           "race:libavcodec.so\n";
}
