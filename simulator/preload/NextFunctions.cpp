#include "simulator/preload/NextFunctions.h"

static_assert(sizeof(off_t) == 8 && sizeof(struct stat) == sizeof(struct stat64),
              "the plain and the 64-bit functions must take the same types");

namespace kestrixsim::next {

constinit Next<int(const char*, int, ...)> open{"open"};
constinit Next<int(int, const char*, int, ...)> openat{"openat"};
constinit Next<int(int)> close{"close"};
constinit Next<int(unsigned, unsigned, int)> closeRange{"close_range"};
constinit Next<void(int)> closefrom{"closefrom"};
constinit Next<int(int)> dup{"dup"};
constinit Next<int(int, int)> dup2{"dup2"};
constinit Next<int(int, int, int)> dup3{"dup3"};
constinit Next<int(int, int, ...)> fcntl{"fcntl"};
constinit Next<ssize_t(int, void*, size_t)> read{"read"};
constinit Next<ssize_t(int, void*, size_t, off_t)> pread{"pread"};
constinit Next<ssize_t(int, const iovec*, int)> readv{"readv"};
constinit Next<ssize_t(int, const void*, size_t)> write{"write"};
constinit Next<ssize_t(int, const void*, size_t, off_t)> pwrite{"pwrite"};
constinit Next<ssize_t(int, const iovec*, int)> writev{"writev"};
constinit Next<int(int, unsigned long, ...)> ioctl{"ioctl"};
constinit Next<void*(void*, size_t, int, int, int, off_t)> mmap{"mmap"};
constinit Next<int(void*, size_t)> munmap{"munmap"};
constinit Next<int(int, termios*)> tcgetattr{"tcgetattr"};
constinit Next<int(int, int, const termios*)> tcsetattr{"tcsetattr"};
constinit Next<int(int, int)> tcflush{"tcflush"};
constinit Next<int(int)> tcdrain{"tcdrain"};
constinit Next<int(int)> isatty{"isatty"};
constinit Next<int(pollfd*, nfds_t, int)> poll{"poll"};
constinit Next<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> ppoll{"ppoll"};
constinit Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select{"select"};
constinit Next<int(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*)> pselect{"pselect"};
constinit Next<int(clockid_t, timespec*)> clock_gettime{"clock_gettime"};
constinit Next<int(timeval*, void*)> gettimeofday{"gettimeofday"};
constinit Next<time_t(time_t*)> time{"time"};
constinit Next<int(clockid_t, int, const timespec*, timespec*)> clock_nanosleep{"clock_nanosleep"};
#if defined(__x86_64__)
constexpr const char* conditions = "GLIBC_2.3.2";
#else
constexpr const char* conditions = nullptr;
#endif
constinit Next<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> condTimedwait{"pthread_cond_timedwait",
                                                                                      conditions};
constinit Next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> condClockwait{
    "pthread_cond_clockwait"};
constinit Next<int(int, struct stat*)> fstat{"fstat"};
constinit Next<FILE*(const char*, const char*)> fopen{"fopen"};
constinit Next<FILE*(const char*, const char*, FILE*)> freopen{"freopen"};
constinit Next<FILE*(int, const char*)> fdopen{"fdopen"};
constinit Next<int(FILE*)> fclose{"fclose"};
constinit Next<FILE*(const char*, const char*)> popen{"popen"};
constinit Next<int(FILE*)> pclose{"pclose"};
constinit Next<int(const char*)> system{"system"};
constinit Next<int(const char*, int)> access{"access"};
constinit Next<int(const char*, int)> euidaccess{"euidaccess"};
constinit Next<int(int, const char*, int, int)> faccessat{"faccessat"};
constinit Next<int(const char*, struct stat*)> stat{"stat"};
constinit Next<int(const char*, struct stat*)> lstat{"lstat"};
constinit Next<int(int, const char*, struct stat*, int)> fstatat{"fstatat"};
constinit Next<int(int, const char*, int, unsigned, struct statx*)> statx{"statx"};
constinit Next<DIR*(const char*)> opendir{"opendir"};
constinit Next<int(const char*)> unlink{"unlink"};
constinit Next<int(const char*, mode_t)> chmod{"chmod"};
constinit Next<int(int, int, int)> socket{"socket"};
constinit Next<int(int, const sockaddr*, socklen_t)> bind{"bind"};
constinit Next<int(int, int, int, const void*, socklen_t)> setsockopt{"setsockopt"};
constinit Next<int(int, int, int, void*, socklen_t*)> getsockopt{"getsockopt"};
constinit Next<unsigned(const char*)> if_nametoindex{"if_nametoindex"};
constinit Next<int(int, const sockaddr*, socklen_t)> connect{"connect"};
constinit Next<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto{"sendto"};
constinit Next<ssize_t(int, const msghdr*, int)> sendmsg{"sendmsg"};
constinit Next<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom{"recvfrom"};
constinit Next<int(int, sockaddr*, socklen_t*)> getsockname{"getsockname"};
constinit Next<int(int, sockaddr*, socklen_t*)> getpeername{"getpeername"};

}  // namespace kestrixsim::next
