// A library that was built without the framework.
extern "C" __attribute__((visibility("default"))) int alien() { return 1; }
