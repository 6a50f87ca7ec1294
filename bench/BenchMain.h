// Shared main for the benchmark binaries: runs every benchmark, then prints, for each case
// registered as "<case>/ours" and "<case>/baseline", the ratio ours / baseline of real time per
// iteration (lower is better; 1.0 means as fast as the baseline).
#pragma once

int benchMain(int argc, char** argv);

// Turns IPv6 off in the calling thread's network namespace, for devices made from now on and
// those already there. The IPv4 benchmarks call it before making their devices: otherwise the
// kernel's duplicate address detection and multicast reports for thousands of new links run
// while they measure, and take the RTNL lock from the work being measured.
void benchIpv6Off();

// Profiling only what is measured: with BENCH_PERF_CTL naming the control FIFO of
// `perf record --delay=-1 --control=fifo:FIFO`, turns sampling on or off; without it, nothing.
void benchProfile(bool on);

// The number of interfaces a case sets up: BENCH_INTFS when set (4096, 10000...), else
// `fallback`.
int benchIntfs(int fallback);
