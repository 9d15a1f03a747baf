// The system calls of the socket layer, as a table of function pointers. The layer calls nothing else,
// so a test can swap entries to inject short reads and writes, EINTR, EAGAIN, resets and time-outs.
// Swap only while no other thread uses the layer, and put the real table back (ResetSocketSys).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace orvexScript::SocketIo
{

struct SocketSys
{
    int (*socket)(int domain, int type, int protocol);
    int (*connect)(int fd, const sockaddr *address, socklen_t length);
    int (*bind)(int fd, const sockaddr *address, socklen_t length);
    int (*listen)(int fd, int backlog);
    int (*accept4)(int fd, sockaddr *address, socklen_t *length, int flags);
    int (*getsockname)(int fd, sockaddr *address, socklen_t *length);
    int (*getsockopt)(int fd, int level, int name, void *value, socklen_t *length);
    int (*setsockopt)(int fd, int level, int name, const void *value, socklen_t length);
    int (*fcntl)(int fd, int command, int argument);
    ssize_t (*send)(int fd, const void *data, size_t size, int flags);
    ssize_t (*recv)(int fd, void *data, size_t size, int flags);
    int (*poll)(pollfd *fds, nfds_t count, int timeoutMs);
    int (*shutdown)(int fd, int how);
    int (*close)(int fd);
    int (*eventfd)(unsigned int initial, int flags);
    ssize_t (*read)(int fd, void *data, size_t size);
    ssize_t (*write)(int fd, const void *data, size_t size);
    int (*epoll_create1)(int flags);
    int (*epoll_ctl)(int epfd, int op, int fd, epoll_event *event);
    int (*epoll_wait)(int epfd, epoll_event *events, int max, int timeoutMs);
};

// The table in use; its entries may be replaced.
SocketSys &Sys();
// Puts the real system calls back.
void ResetSocketSys();

} // namespace orvexScript::SocketIo
