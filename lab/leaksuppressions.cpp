/// What the leak sanitizer may find, and why it is wanted.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions()
{
    // The Objective-C runtime keeps what it has built at its start until the process ends, where
    // the sanitizer does not find it.
    return "leak:libobjc.so\n"
           "leak:libgnustep-base.so\n";
}
