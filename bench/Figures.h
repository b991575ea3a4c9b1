#ifndef KRO_BENCH_FIGURES_H
#define KRO_BENCH_FIGURES_H

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

namespace kro::bench
{
using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// Tells one figure as a line of JSON on standard output, which bench/run collects.
/// @param road       what is measured: "inbound", "publishing" and so on; a chapter of docs/performance.md.
/// @param where      the circumstances, such as "QoS 0, 64 B"; only figures of the same ones are compared.
/// @param candidate  what was measured, the limit among others.
/// @param x          the abscissa where the figure is a point of a curve; negative for none.
inline void tell(const std::string& road, const std::string& figure, const std::string& where,
                 const std::string& candidate, double value, const std::string& unit, double x = -1)
{
    std::printf(R"({"road":"%s","figure":"%s","where":"%s","candidate":"%s","unit":"%s","value":%.6g)",
                road.c_str(), figure.c_str(), where.c_str(), candidate.c_str(), unit.c_str(), value);
    if (x >= 0) std::printf(R"(,"x":%.9g)", x);
    std::printf("}\n");
    std::fflush(stdout);
}

/// Resident memory of a process, this one by default.
inline double residentBytes(const std::string& process = "self")
{
    double pages = 0;
    std::ifstream("/proc/" + process + "/statm") >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}
}  // namespace kro::bench

#endif
