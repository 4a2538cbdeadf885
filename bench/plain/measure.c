/* measure LIMIT PROGRAM [ARGUMENT]...: runs a program, its output thrown away, and prints the
   microseconds it took, those of processor time, and its peak memory in KiB. Fails when the program
   does, or when it takes more than LIMIT seconds. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long microseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

static long long of(struct timeval t) { return t.tv_sec * 1000000LL + t.tv_usec; }

static void run(unsigned limit, char** command) {
    int nothing = open("/dev/null", O_WRONLY);
    dup2(nothing, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    alarm(limit); /* stays in force in the program */
    execvp(command[0], command);
    _exit(127);
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    long long start = microseconds();
    pid_t child = fork();
    if (child == 0) run((unsigned)atoi(argv[1]), argv + 2);
    int status;
    struct rusage used;
    if (child < 0 || wait4(child, &status, 0, &used) != child || status != 0) return 1;
    long long taken = microseconds() - start;
    printf("%lld %lld %ld\n", taken, of(used.ru_utime) + of(used.ru_stime), used.ru_maxrss);
    return 0;
}
