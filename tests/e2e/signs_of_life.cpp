// Preloaded into an example that declares a stream over when nothing arrives from it: a socket
// that is empty yields a datagram of one byte every other time that it is asked, so that no stream
// falls silent because the test that feeds it is busy. A real datagram of two bytes ends that for
// its socket.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>

namespace {

enum class State { kQuiet, kSignOfLife, kSilent };

// Only the example's main thread receives.
std::map<int, State>& states() {
    static std::map<int, State> states;
    return states;
}

}  // namespace

extern "C" ssize_t recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* sender,
                            socklen_t* sender_size) {
    static const auto next = reinterpret_cast<decltype(&recvfrom)>(::dlsym(RTLD_NEXT, "recvfrom"));
    const ssize_t length = next(socket, buffer, size, flags, sender, sender_size);
    State& state = states()[socket];
    if (length == 2) {
        state = State::kSilent;
    }
    if (length >= 0 || errno != EAGAIN || state == State::kSilent) {
        return length;
    }
    state = state == State::kQuiet ? State::kSignOfLife : State::kQuiet;
    return state == State::kSignOfLife ? 1 : length;
}
