// With the GCC runtime for Objective-C, clang gives the functions of an Objective-C++ file a
// personality that lets no C++ exception be caught there. This program's own files use the one of
// C++ instead; the libraries keep theirs, since the name is hidden.

extern "C" {

int __gxx_personality_v0(int version, int actions, unsigned long exceptionClass, void* exception,
                         void* context);

__attribute__((visibility("hidden"))) int __gnu_objc_personality_v0(int version, int actions,
                                                                    unsigned long exceptionClass,
                                                                    void* exception,
                                                                    void* context) {
  return __gxx_personality_v0(version, actions, exceptionClass, exception, context);
}
}
