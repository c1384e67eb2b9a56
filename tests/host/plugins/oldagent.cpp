// A library that was built with an older framework.
extern "C" __attribute__((visibility("default"))) extern const char zelAbi[];
extern "C" const char zelAbi[] = "0.0";
