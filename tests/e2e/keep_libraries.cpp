// Preloaded into the player in address-sanitizer builds. SDL unloads the X11 and D-Bus libraries
// when it quits; the leak report at the process's end could then no longer name the library that an
// allocation belongs to, and no suppression would match.
extern "C" int dlclose(void* /*library*/) noexcept {
    return 0;
}
