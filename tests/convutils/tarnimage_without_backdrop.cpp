// A library with three of tarnimage.so's four entry points: it must count as missing.
#define EXPORT extern "C" __attribute__((visibility("default")))

EXPORT int SplitLayersEx(const char*, const char*, int, int, int) { return -5; }
EXPORT int XpsToPdfConvert(const char*, const char*, int, int, int) { return 0; }
EXPORT int EngineConvert(const char*, const char*, int, int, int) { return -5; }
