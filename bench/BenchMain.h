// Shared main for the benchmark binaries: runs every benchmark, then prints, for each case
// registered as "<case>/ours" and "<case>/baseline", the ratio ours / baseline of real time per
// iteration (lower is better; 1.0 means as fast as the baseline).
#pragma once

int benchMain(int argc, char** argv);
