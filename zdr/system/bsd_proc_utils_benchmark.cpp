// The process table against its peers: a minimal hand-written scan of
// /proc/*/comm for the pid search, and procps' libproc2 reading pid, parent
// pid and command for the process list.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <libproc2/pids.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "zdr/system/bsd_proc_utils.h"

namespace {

std::string ownName() {
    std::ifstream in("/proc/self/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

// The least a program can do: list /proc, read each comm, compare.
int scanProcComm(const char* name, int32_t* pids, unsigned capacity) {
    DIR* dir = ::opendir("/proc");
    if (!dir) return -1;
    unsigned found = 0;
    char path[300], buffer[32];
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
        std::snprintf(path, sizeof path, "/proc/%s/comm", entry->d_name);
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        const ssize_t n = ::read(fd, buffer, sizeof buffer - 1);
        ::close(fd);
        if (n <= 0) continue;
        buffer[n - 1] = '\0';
        if (std::strncmp(buffer, name, 16) == 0 && found < capacity) {
            pids[found++] = std::atoi(entry->d_name);
        }
    }
    ::closedir(dir);
    return static_cast<int>(found);
}

void BM_ProcScanBaseline(benchmark::State& state) {
    const std::string name = ownName();
    int32_t pids[64];
    for (auto _ : state) benchmark::DoNotOptimize(scanProcComm(name.c_str(), pids, 64));
}
BENCHMARK(BM_ProcScanBaseline);

void BM_GetAllPIDsForProcessName(benchmark::State& state) {
    const std::string name = ownName();
    int32_t pids[64];
    unsigned int count = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(getAllPIDsForProcessName(name.c_str(), pids, 64, &count, nullptr));
    }
}
BENCHMARK(BM_GetAllPIDsForProcessName);

void BM_Libproc2ReadBaseline(benchmark::State& state) {
    pids_item items[] = {PIDS_ID_PID, PIDS_ID_PPID, PIDS_CMD};
    pids_info* info = nullptr;
    if (procps_pids_new(&info, items, 3) < 0) {
        state.SkipWithError("libproc2 could not start");
        return;
    }
    for (auto _ : state) {
        pids_fetch* fetch = procps_pids_reap(info, PIDS_FETCH_TASKS_ONLY);
        long total = 0;
        for (int i = 0; fetch && i < fetch->counts->total; ++i) {
            total +=
                fetch->stacks[i]->head[0].result.s_int + fetch->stacks[i]->head[1].result.s_int;
            benchmark::DoNotOptimize(fetch->stacks[i]->head[2].result.str);
        }
        benchmark::DoNotOptimize(total);
    }
    procps_pids_unref(&info);
}
BENCHMARK(BM_Libproc2ReadBaseline);

void BM_GetBSDProcessList(benchmark::State& state) {
    zdr::BSDProcUtils::getBSDProcessList();  // warms the bundle-identifier cache
    for (auto _ : state) benchmark::DoNotOptimize(zdr::BSDProcUtils::getBSDProcessList());
}
BENCHMARK(BM_GetBSDProcessList);

}  // namespace
