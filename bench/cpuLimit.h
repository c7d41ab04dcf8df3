#ifndef VREC_BENCH_CPULIMIT_H
#define VREC_BENCH_CPULIMIT_H

// A slow processor for the capturing process: a cgroup of its own whose processes get a
// share of one core, as quota in every short period (1 ms in every 10 ms for 10%), so that
// the limit acts as a slow core rather than as long pauses. cgroup v2 (cpu.max) where its
// cpu controller is on, else v1 (cpu.cfs_quota_us). Processes join by writing their pid to
// procs() before they exec, and everything they start stays in it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace benchkit {

class CpuLimit {
public:
    static constexpr long kPeriodUs = 10000;

    CpuLimit() {
        const std::string name = "vrec-bench-" + std::to_string(getpid());
        const std::string v2 = unifiedRoot();
        if (!v2.empty() && controllers(v2).find(" cpu ") != std::string::npos && enableCpu(v2) &&
            mkdir((v2 + "/" + name).c_str(), 0755) == 0) {
            dir = v2 + "/" + name;
            version = 2;
        } else if (mkdir(("/sys/fs/cgroup/cpu/" + name).c_str(), 0755) == 0) {
            dir = "/sys/fs/cgroup/cpu/" + name;
            version = 1;
        } else {
            why = std::string("no cgroup with a cpu controller could be made (") + strerror(errno) +
                  "): run as root on a host with cgroups";
        }
    }
    ~CpuLimit() {
        if (!dir.empty()) {
            rmdir(dir.c_str());
        }
    }
    CpuLimit(const CpuLimit&) = delete;
    CpuLimit& operator=(const CpuLimit&) = delete;

    bool usable() const { return !dir.empty(); }
    const std::string& whyNot() const { return why; }
    std::string procs() const { return dir + "/cgroup.procs"; }

    // The kernel takes no quota below 1 ms: smaller shares get a longer period.
    static constexpr long kLeastQuotaUs = 1000;

    // `percent` of one core; 0 lifts the limit.
    bool limit(double percent) {
        long period = kPeriodUs;
        long quota = static_cast<long>(period * percent / 100);
        if (percent > 0 && quota < kLeastQuotaUs) {
            quota = kLeastQuotaUs;
            period = static_cast<long>(quota * 100 / percent);
        }
        periodUs = period;
        if (version == 2) {
            return put(dir + "/cpu.max",
                       (percent > 0 ? std::to_string(quota) : std::string("max")) + " " +
                           std::to_string(period));
        }
        // Quota first when the period grows, so that the kernel never sees a quota above it.
        return put(dir + "/cpu.cfs_quota_us", "-1") &&
               put(dir + "/cpu.cfs_period_us", std::to_string(period)) &&
               (percent <= 0 || put(dir + "/cpu.cfs_quota_us", std::to_string(quota)));
    }
    // The period of the last limit set.
    long period() const { return periodUs; }

    // For the child between fork and exec: joins the cgroup at `procs`.
    static bool join(const std::string& procs) { return put(procs, std::to_string(getpid())); }

private:
    static bool put(const std::string& path, const std::string& text) {
        std::ofstream out(path);
        out << text << '\n';
        out.flush();
        return static_cast<bool>(out);
    }
    static std::string read(const std::string& path) {
        std::ifstream in(path);
        std::string text;
        std::getline(in, text);
        return text;
    }
    static std::string unifiedRoot() {
        for (const char* root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
            if (access((std::string(root) + "/cgroup.controllers").c_str(), R_OK) == 0) {
                return root;
            }
        }
        return "";
    }
    static std::string controllers(const std::string& root) {
        return " " + read(root + "/cgroup.controllers") + " ";
    }
    static bool enableCpu(const std::string& root) {
        return (" " + read(root + "/cgroup.subtree_control") + " ").find(" cpu ") !=
                   std::string::npos ||
               put(root + "/cgroup.subtree_control", "+cpu");
    }

    std::string dir;
    std::string why;
    int version = 0;
    long periodUs = kPeriodUs;
};

}  // namespace benchkit

#endif
