#pragma once

#include <cerrno>

// Retries a system call for as long as a signal interrupts it (EINTR), as every accept, read,
// write, recvmsg and sendmsg here is retried; any other failure is returned as it is.
template <typename Call>
auto retry_on_eintr(Call call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}
