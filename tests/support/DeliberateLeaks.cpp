// Tells the leak sanitizer what the library deliberately does not free, one by one.

extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
    // The services of channel 0 live until the process ends, as does the configuration object that they refer to.
    return "leak:CZceDmaChanImpl::createServices\n"
           "leak:CVexoZceMdApiImpl::InitCfgInfo\n";
}
