// A library that loads but exports no entry point.
extern "C" __attribute__((visibility("default"))) int tarn_something_else() { return 0; }
