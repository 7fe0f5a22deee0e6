#pragma once

#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <termios.h>
#include <time.h>

#include <cstdio>

#include "simulator/preload/Next.h"

// The functions behind the interposed ones. Nothing in this folder calls an interposed function by its own name.
// On 64-bit targets the plain and the "64" functions take the same types, so one of them stands for both.
namespace kestrixsim::next {

extern Next<int(const char*, int, ...)> open;
extern Next<int(int, const char*, int, ...)> openat;
extern Next<int(int)> close;
extern Next<int(unsigned, unsigned, int)> closeRange;
extern Next<void(int)> closefrom;
extern Next<int(int)> dup;
extern Next<int(int, int)> dup2;
extern Next<int(int, int, int)> dup3;
extern Next<int(int, int, ...)> fcntl;
extern Next<ssize_t(int, void*, size_t)> read;
extern Next<ssize_t(int, void*, size_t, off_t)> pread;
extern Next<ssize_t(int, const iovec*, int)> readv;
extern Next<ssize_t(int, const void*, size_t)> write;
extern Next<ssize_t(int, const void*, size_t, off_t)> pwrite;
extern Next<ssize_t(int, const iovec*, int)> writev;
extern Next<int(int, unsigned long, ...)> ioctl;
extern Next<void*(void*, size_t, int, int, int, off_t)> mmap;
extern Next<int(void*, size_t)> munmap;
extern Next<int(int, termios*)> tcgetattr;
extern Next<int(int, int, const termios*)> tcsetattr;
extern Next<int(int, int)> tcflush;
extern Next<int(int)> tcdrain;
extern Next<int(int)> isatty;
extern Next<int(pollfd*, nfds_t, int)> poll;
extern Next<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> ppoll;
extern Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
extern Next<int(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*)> pselect;
extern Next<int(clockid_t, timespec*)> clock_gettime;
extern Next<int(timeval*, void*)> gettimeofday;
extern Next<time_t(time_t*)> time;
extern Next<int(clockid_t, int, const timespec*, timespec*)> clock_nanosleep;
extern Next<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> condTimedwait;
extern Next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> condClockwait;
extern Next<int(int, struct stat*)> fstat;
extern Next<FILE*(const char*, const char*)> fopen;
extern Next<FILE*(const char*, const char*, FILE*)> freopen;
extern Next<FILE*(int, const char*)> fdopen;
extern Next<int(FILE*)> fclose;
extern Next<FILE*(const char*, const char*)> popen;
extern Next<int(FILE*)> pclose;
extern Next<int(const char*)> system;
extern Next<int(const char*, int)> access;
extern Next<int(const char*, int)> euidaccess;
extern Next<int(int, const char*, int, int)> faccessat;
extern Next<int(const char*, struct stat*)> stat;
extern Next<int(const char*, struct stat*)> lstat;
extern Next<int(int, const char*, struct stat*, int)> fstatat;
extern Next<int(int, const char*, int, unsigned, struct statx*)> statx;
extern Next<DIR*(const char*)> opendir;
extern Next<int(const char*)> unlink;
extern Next<int(const char*, mode_t)> chmod;
extern Next<int(int, int, int)> socket;
extern Next<int(int, const sockaddr*, socklen_t)> bind;
extern Next<int(int, int, int, const void*, socklen_t)> setsockopt;
extern Next<int(int, int, int, void*, socklen_t*)> getsockopt;
extern Next<unsigned(const char*)> if_nametoindex;
extern Next<int(int, const sockaddr*, socklen_t)> connect;
extern Next<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto;
extern Next<ssize_t(int, const msghdr*, int)> sendmsg;
extern Next<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom;
extern Next<int(int, sockaddr*, socklen_t*)> getsockname;
extern Next<int(int, sockaddr*, socklen_t*)> getpeername;

}  // namespace kestrixsim::next
