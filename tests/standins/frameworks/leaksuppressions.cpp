// The Objective-C runtime keeps what it has built at its start until the process ends, where the
// leak sanitizer does not find it.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions()
{
    return "leak:libobjc.so\nleak:libgnustep-base.so\n";
}
