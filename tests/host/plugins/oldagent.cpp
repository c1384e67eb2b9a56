// A library that was built with an older framework.
extern "C" {
extern const char zelAbi[] __attribute__((visibility("default")));
const char zelAbi[] = "0.0";
}
