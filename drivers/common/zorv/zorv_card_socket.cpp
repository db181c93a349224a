/* SPDX-License-Identifier: BSD-3-Clause
 * The sockets the emulated card serves: where an interface's socket lives,
 * its directory, a socket left behind by a process that is gone, and the
 * connections this process accepted on a socket (an accepted unix socket is
 * named after the socket it was accepted on, so they are found among the
 * process's open files): given stall timeouts, counted, or cut.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "zorv1_logs.h"
#include "zorv_card_internal.h"
#include "zorv_vhost_card.h"

using namespace zorv_card;

namespace {

/*
 * The vhost library serves every socket of the process from one event
 * thread, with blocking reads and writes on each connection, and its
 * unregister waits for that thread to leave a callback of the socket's
 * connections. A peer that sends a header and holds back the payload, or
 * never reads the replies to its requests, would hold that thread (every
 * other socket's peers, and the close of its port) for as long as it likes.
 * Each accepted connection's socket therefore gets receive and send
 * timeouts: a message that does not arrive whole, or a reply that cannot be
 * sent, within PEER_STALL_MS fails, and the library drops a peer whose
 * message failed (a reply that failed is dropped instead).
 */
constexpr long PEER_STALL_MS = 50;

/* True for a connected (not listening) unix socket whose own address is path. */
bool accepted_on(int fd, const char *path)
{
	struct stat st;
	if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode))
		return false;
	struct sockaddr_un un = {};
	socklen_t len = sizeof(un);
	if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&un), &len) != 0 ||
	    un.sun_family != AF_UNIX || len <= offsetof(struct sockaddr_un, sun_path))
		return false;
	size_t plen = len - offsetof(struct sockaddr_un, sun_path);
	if (strnlen(un.sun_path, plen) != strlen(path) || strncmp(un.sun_path, path, plen) != 0)
		return false;
	int listening = 0;
	socklen_t olen = sizeof(listening);
	return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &olen) == 0 && listening == 0;
}

/* True when a process accepts connections on the socket. */
bool socket_served(const char *path)
{
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (fd < 0)
		return false;
	struct sockaddr_un un = {};
	un.sun_family = AF_UNIX;
	snprintf(un.sun_path, sizeof(un.sun_path), "%s", path);
	int ret = connect(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof(un));
	bool served = ret == 0 || errno == EAGAIN || errno == EINPROGRESS;
	close(fd);
	return served;
}

} // namespace

namespace zorv_card {

int for_each_accepted(const char *path, peer_io what)
{
	DIR *dir = opendir("/proc/self/fd");
	if (dir == nullptr)
		return -errno;
	const struct timeval tv = {.tv_sec = 0, .tv_usec = PEER_STALL_MS * 1000};
	int found = 0;
	for (struct dirent *e = readdir(dir); e != nullptr; e = readdir(dir)) {
		char *end = nullptr;
		long n = strtol(e->d_name, &end, 10);
		if (end == e->d_name || *end != '\0' || n < 0 || n == dirfd(dir))
			continue;
		int fd = static_cast<int>(n);
		if (!accepted_on(fd, path))
			continue;
		if (what == peer_io::COUNT_OPEN) {
			if (peer_holds(fd))
				found++;
			continue;
		}
		found++;
		if (what == peer_io::CUT) {
			shutdown(fd, SHUT_RDWR);
			continue;
		}
		if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
		    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0)
			ZORV1_VDEV_LOG(WARNING, "cannot bound the peer's stalls on %s (fd %d): %s\n",
				       path, fd, strerror(errno));
	}
	closedir(dir);
	return found;
}

/*
 * A connection whose peer has closed it hangs up, also while requests it
 * sent before are still unread.
 */
bool peer_holds(int fd)
{
	struct pollfd pfd = {.fd = fd, .events = POLLRDHUP, .revents = 0};
	return poll(&pfd, 1, 0) >= 0 && (pfd.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
}

int dup_new_peer(const char *path, const unsigned long *taken, unsigned int nb_taken,
		 unsigned long *ino)
{
	DIR *dir = opendir("/proc/self/fd");
	if (dir == nullptr)
		return -1;
	int found = -1;
	unsigned int candidates = 0;
	for (struct dirent *e = readdir(dir); e != nullptr; e = readdir(dir)) {
		char *end = nullptr;
		long n = strtol(e->d_name, &end, 10);
		if (end == e->d_name || *end != '\0' || n < 0 || n == dirfd(dir))
			continue;
		int fd = static_cast<int>(n);
		struct stat st;
		if (!accepted_on(fd, path) || fstat(fd, &st) != 0)
			continue;
		bool known = false;
		for (unsigned int i = 0; i < nb_taken && !known; i++)
			known = taken[i] == static_cast<unsigned long>(st.st_ino);
		if (known)
			continue;
		candidates++;
		found = fd;
		*ino = st.st_ino;
	}
	closedir(dir);
	if (candidates != 1)
		return -1;
	return fcntl(found, F_DUPFD_CLOEXEC, 0);
}

/* mkdir -p of a socket directory. */
int mkdir_p(const char *dir)
{
	char tmp[SOCK_PATH_MAX];
	if (snprintf(tmp, sizeof(tmp), "%s", dir) >= static_cast<int>(sizeof(tmp)))
		return -ENAMETOOLONG;
	for (char *p = tmp + 1; *p != '\0'; p++) {
		if (*p != '/')
			continue;
		*p = '\0';
		if (mkdir(tmp, 0755) != 0 && errno != EEXIST)
			return -errno;
		*p = '/';
	}
	if (mkdir(tmp, 0755) != 0 && errno != EEXIST)
		return -errno;
	return 0;
}

/* Remove a socket left behind by a process that is gone. */
int remove_stale_socket(const char *path)
{
	struct stat st;
	if (lstat(path, &st) != 0)
		return errno == ENOENT ? 0 : -errno;
	if (!S_ISSOCK(st.st_mode)) {
		ZORV1_VDEV_LOG(ERR, "%s exists and is not a socket\n", path);
		return -EEXIST;
	}
	if (socket_served(path)) {
		ZORV1_VDEV_LOG(ERR, "%s is served by another process\n", path);
		return -EADDRINUSE;
	}
	if (unlink(path) != 0 && errno != ENOENT)
		return -errno;
	ZORV1_VDEV_LOG(INFO, "removed stale socket %s\n", path);
	return 0;
}

} // namespace zorv_card

extern "C" {

int zorv_card_socket_path(const char *iface, char *buf, size_t len)
{
	if (iface == nullptr || iface[0] == '\0' || buf == nullptr || len == 0)
		return -1;
	int n;
	if (strchr(iface, '/') != nullptr) {
		n = snprintf(buf, len, "%s", iface);
	} else {
		const char *dir = getenv(ZORV_CARD_SOCK_DIR_ENV);
		if (dir == nullptr || dir[0] == '\0')
			dir = ZORV_CARD_SOCK_DIR_DEFAULT;
		n = snprintf(buf, len, "%s/%s", dir, iface);
	}
	if (n < 0 || static_cast<size_t>(n) >= len || static_cast<size_t>(n) >= SOCK_PATH_MAX)
		return -1;
	return 0;
}

} // extern "C"
