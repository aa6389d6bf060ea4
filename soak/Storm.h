#pragma once

#include <vesk/Thread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace soak {

/// One kind of load. Each storm works in a thread of its own, in rounds, and releases everything at its end.
class Storm {
public:
    explicit Storm(char const* name) : m_name(name) {}
    virtual ~Storm() = default;

    Storm(Storm const&) = delete;
    Storm& operator=(Storm const&) = delete;

    char const* getName() const noexcept { return m_name; }
    unsigned long long getOperations() const noexcept { return m_operations; }
    unsigned long long getProvoked() const noexcept { return m_provoked; }

    /// Prepares the rounds. Returns why the storm is left out, or an empty text.
    virtual std::string start() { return {}; }
    /// Performs a round, which takes at most a second or so.
    virtual void work() = 0;
    /// Releases what `start` and the rounds have acquired.
    virtual void stop() {}

    /// Starts the thread. `seed` determines the random numbers of all rounds.
    void run(unsigned long seed);
    /// Ends the thread after its current round.
    void end();

protected:
    /// Counts operations that succeeded as they should.
    void count(unsigned int operations = 1) noexcept { m_operations += operations; }
    /// Counts a failure that the storm has provoked, and acknowledges its report.
    void countProvoked() noexcept;
    /// Counts an operation. If it failed, the soak fails; the pending reports are printed.
    /// @return `failed`
    bool check(bool failed, char const* what);
    /// Waits for at most 60 seconds.
    bool eventually(std::function<bool()> const& condition) const;

    /// Returns a number from 0 to `limit` - 1.
    unsigned int random(unsigned int limit) { return static_cast<unsigned int>(m_random()) % limit; }
    /// Returns true in one of `n` cases.
    bool oneIn(unsigned int n) { return random(n) == 0; }

private:
    static void loop(void* storm);

    char const* m_name;
    std::atomic<unsigned long long> m_operations{0};
    std::atomic<unsigned long long> m_provoked{0};
    std::atomic<bool> m_ends{false};
    std::mt19937 m_random;
    std::unique_ptr<vesk::Thread> m_thread;
};

/// Records a fault of the library: the soak goes on, and fails at its end.
void fault(std::string const& text);
/// Returns the number of faults so far.
unsigned int countFaults() noexcept;

/// Returns a name for an object that processes share, unique to this soak.
std::string makeName(char const* what);

/// Returns all storms.
std::vector<std::unique_ptr<Storm>> makeStorms();

std::unique_ptr<Storm> makeSignalStorm();
std::unique_ptr<Storm> makeTimerStorm();
std::unique_ptr<Storm> makeChildStorm();
std::unique_ptr<Storm> makeTcpStorm();
std::unique_ptr<Storm> makeUnixStorm();
std::unique_ptr<Storm> makeQueueStorm();
std::unique_ptr<Storm> makeRingStorm();
std::unique_ptr<Storm> makeNetworkStorm();
std::unique_ptr<Storm> makeSerialStorm();

/// Writes into the ring of this name until the process is killed: the other side of the storm of rings.
int writeRing(char const* name);

} // namespace soak
