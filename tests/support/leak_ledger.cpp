// What the leak checker is told to expect: the digest context of each HMAC, which the library never
// releases, deliberately. Everything else that leaks is a failure. Weak, because a test program may
// have to expect more, by a definition of its own.

extern "C" const char* __lsan_default_suppressions();

extern "C" __attribute__((weak)) const char* __lsan_default_suppressions()
{
    return "leak:mbedtls_md_setup\n";
}
