// The system side of finding applications and of the script server: the server's TCP and UDP
// sockets, datagrams, the local socket over which a host takes over a client's connection, and the
// start of detached processes. Linux code lives in linux/ServerNet.cpp. Internal to the library.
// Descriptors are plain ints, -1 when there is none; every descriptor made here is close-on-exec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvexScript::ServerNet
{

// ---- TCP, for the server ---------------------------------------------------------------------------
// A TCP socket with SO_REUSEADDR (so that a restarted server binds while old connections linger; a
// second listener on the port still fails). -1 with `err` set on failure.
int OpenTcp(int &err);
// Binds to any address at `port`. False with `err` set.
bool BindAny(int fd, uint16_t port, int &err);
bool Listen(int fd, int backlog, int &err);
// Accepts one connection (blocking, with TCP_NODELAY); its peer address in network order.
int AcceptTcp(int listenFd, uint32_t &peerIp, int &err);

// ---- UDP ------------------------------------------------------------------------------------------
// A datagram socket with SO_REUSEADDR bound to any address at `port` (the server's ping socket).
int OpenPingSocket(uint16_t port, int &err);
// A datagram socket that may send to broadcast addresses.
int OpenBroadcastSocket(int &err);
bool SendDatagram(int fd, uint32_t ip, uint16_t port, const void *data, size_t size);
// One datagram into `buffer`: its length, or -1 with `err` set. The sender in network order.
int ReceiveDatagram(int fd, void *buffer, size_t size, uint32_t &fromIp, uint16_t &fromPort, int &err);
// The name of an address by reverse look-up, or "" when it has none.
std::string HostName(uint32_t ip);

// ---- waiting --------------------------------------------------------------------------------------
// Waits at most timeoutUs for any of `fds` (entries of -1 are skipped) to be readable and sets
// ready[i] for those that are. The count of ready descriptors, 0 on time-out, -1 with `err` set.
int WaitReadable(const int *fds, bool *ready, int count, long timeoutUs, int &err);

// ---- handing a connection to another process -------------------------------------------------------
// The server listens on a local socket named from its port and process id. A host that is asked to
// take over a client connects to it, sends the 8-byte token the server offered, and receives the
// client's socket. Both ends check who is at the other end by its process id.
int ListenHandover(uint16_t port, int pid, int &err);
// Accepts one local connection; -1 if none could be had.
int AcceptLocal(int listenFd);
// The process id of the peer of a local socket, or -1.
int PeerProcess(int fd);
// Reads exactly `size` bytes within timeoutMs in all; false on a short read, an error or a time-out.
bool ReadExact(int fd, void *data, size_t size, int timeoutMs);
// Sends `descriptor` over the local socket `fd` (with one byte of data).
bool SendDescriptor(int fd, int descriptor);
// The host's side: connects to the server `serverPid` at `port`, checks that the peer is that
// process, sends `token` and receives a stream socket within timeoutMs. -1 on any failure, with a
// short reason in `why`.
int TakeHandedSocket(uint16_t port, int serverPid, uint64_t token, int timeoutMs, const char *&why);

// ---- descriptors ----------------------------------------------------------------------------------
int Duplicate(int fd);
void Close(int &fd);

// ---- processes ------------------------------------------------------------------------------------
int ProcessId();
// The folder of the running executable, with its trailing '/'; "" if unknown.
std::string OwnDirectory();
// Starts `commandLine` (split at blanks; double quotes group, a backslash escapes the next character)
// in `directory` as a new session with its standard streams on /dev/null. The child is reaped by
// ReapChildren, so none is left a zombie. False with `err` set.
bool SpawnDetached(const char *commandLine, const char *directory, int &pid, int &err);
// Reaps the children SpawnDetached started that have ended; never waits.
void ReapChildren();

} // namespace orvexScript::ServerNet
