// kelvo-bench-measure: runs one command with its standard output and error
// sent to files and prints what it cost: user and system CPU seconds, wall
// seconds, peak resident memory in KiB and the bytes it wrote, on one line.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "Usage: kelvo-bench-measure stdout-file stderr-file command [args...]\n");
    return 2;
  }
  timespec start{}, end{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("kelvo-bench-measure: fork");
    return 2;
  }
  if (pid == 0) {
    const int out = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execvp(argv[3], argv + 3);
    std::fprintf(stderr, "kelvo-bench-measure: cannot run %s: %s\n", argv[3], std::strerror(errno));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) < 0) {
    std::perror("kelvo-bench-measure: wait4");
    return 2;
  }
  clock_gettime(CLOCK_MONOTONIC, &end);
  struct stat st {};
  const long long bytes = stat(argv[1], &st) == 0 ? static_cast<long long>(st.st_size) : -1;
  const double user = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6;
  const double sys = usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
  const double wall = (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
  std::printf("%.6f %.6f %.6f %ld %lld\n", user, sys, wall, usage.ru_maxrss, bytes);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return code;
}
