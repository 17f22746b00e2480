// A library at OpenH264's place that has two of the three entry points, and depends on one that has all.
extern "C" __attribute__((visibility("default"))) int WelsCreateSVCEncoder(void**) { return 1; }
extern "C" __attribute__((visibility("default"))) void WelsDestroySVCEncoder(void*) {}
