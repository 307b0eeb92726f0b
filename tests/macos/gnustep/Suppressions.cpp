// What the sanitizers are not to report: GNUstep and the runtime keep objects for the life of the
// process, and are not built with the thread sanitizer. The function of GNUstep that `LiveObjects`
// calls ends with a jump that unlocks its mutex, so that the unlocking looks like a call of ours.

extern "C" {

const char* __lsan_default_suppressions() {
  return "leak:libobjc.so\n"
         "leak:libgnustep-base\n";
}

const char* __lsan_default_options() {
  return "print_suppressions=0";
}

const char* __tsan_default_suppressions() {
  return "called_from_lib:libobjc.so\n"
         "called_from_lib:libgnustep-base\n"
         "race:libgnustep-base\n"
         "race:libobjc.so\n"
         "deadlock:libgnustep-base\n"
         "deadlock:libobjc.so\n"
         "mutex:kestrowan::test::LiveObjects::LiveObjects\n";
}
}
