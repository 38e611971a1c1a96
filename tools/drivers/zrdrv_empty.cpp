// A driver library that registers no class: the registry refuses it and remembers the refusal.
extern "C" __attribute__((visibility("default"))) int ZrDrvEmptyVersion() { return 1; }
