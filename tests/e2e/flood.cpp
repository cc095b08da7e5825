// Preloaded into an example that is to survive a flood: a datagram of one byte stays where it is
// when it is received, so that there is no end of them, however busy the machine.
#include <dlfcn.h>
#include <sys/socket.h>

extern "C" ssize_t recvfrom(int socket, void* buffer, size_t size, int flags, sockaddr* sender,
                            socklen_t* sender_size) {
    static const auto next = reinterpret_cast<decltype(&recvfrom)>(::dlsym(RTLD_NEXT, "recvfrom"));
    const ssize_t length = next(socket, buffer, size, flags | MSG_PEEK, sender, sender_size);
    return length == 1 ? length : next(socket, buffer, size, flags, sender, sender_size);
}
