// A host with periodic tasks: one every second, and one that is declared late when it hangs; for 10 s.
#include <atomic>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include <Logger.h>
#include <PeriodicTaskManager.h>
#include <Safeguards.h>

using namespace std::chrono_literals;

int main()
{
    kro::setSafeguards(kro::kAllSafeguards);  // first: a time-out shall be looked at when it is over
    kro::loadLogging();                       // before any other thread logs

    std::atomic<int> beats{0};  // what functions use must be good until the last of them has ended
    auto& manager = kro::PeriodicTaskManager::getInstance();
    std::string name = "beat";
    const unsigned int beat = manager.registerTask(
        name, 1s, [&beats] { ++beats; }, 0ms);  // on a pool thread; 0: no time-out
    name = "hangs";
    const unsigned int hangs = manager.registerTask(
        name, 2s, [] { std::this_thread::sleep_for(3s); }, 1s);
    manager.startPeriodMonitorTask();  // the first runs come a period from now

    std::this_thread::sleep_for(10s);
    std::stringstream listing;
    manager.showAllTaskInfo(listing);
    std::cout << beats << " beats; hangs is "
              << (manager.getTaskStatus(hangs) == kro::TASK_TIMEOUT ? "" : "not ") << "late\n"
              << listing.str();  // the numbers of the states stand in PeriodicTaskManager.h

    // No run begins any more, and those under way come to their end; the monitor ends within its interval.
    manager.stopPeriodMonitorTask();
    manager.cancelTask(beat);
    manager.cancelTask(hangs);
    std::this_thread::sleep_for(200ms);
    kro::deleteLogger();  // last: nothing may log after it
}
