#pragma once

#include "Config.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace supervisor {

/// A supervised program, whatever starts it and calls back for it.
class AnyService {
public:
    virtual ~AnyService() = default;
    /// Lets the program run. One that is being stopped is started again at its end.
    virtual void start() = 0;
    /// Ends the program.
    virtual void stop() = 0;
    /// Returns whether the program has ended, or was never started, and will not be started again.
    virtual bool isStopped() const = 0;
    /// Replaces the configuration, and restarts a running program.
    virtual void change(ServiceConfig config) = 0;
    virtual ServiceConfig const& config() const = 0;
    /// Returns "NAME GROUP STATE PID RESTARTS LAST-END".
    virtual std::string status() const = 0;
};

/// All services of a configuration file: what to do when it has changed, and at a command. One thread only.
class Services {
public:
    using Make = std::function<std::shared_ptr<AnyService>(
        std::string const& name, ServiceConfig const& config, std::function<void()> stopped)>;
    using Post = std::function<void(std::function<void()> call)>;

    /// @param make  makes a service, which calls `stopped` each time it has stopped
    /// @param post  calls back later, when no service calls back
    Services(std::string config_path, Make make, Post post);

    bool isEmpty() const { return m_services.empty(); }
    /// Reads the configuration again, and starts, stops and restarts what has changed. If the file has a mistake, nothing
    /// changes. Does nothing once all services are being stopped.
    void reload();
    /// Stops all services, and calls back when they have ended.
    void stop(std::function<void()> stopped);
    /// Carries out a command, and returns the answer.
    std::string answer(std::string const& line);

private:
    void remove(std::string const& name);
    void forget(std::string const& name);
    void reportIfStopped();

    std::string m_config_path;
    Make m_make;
    Post m_post;
    std::map<std::string, std::shared_ptr<AnyService>> m_services;
    std::set<std::string> m_gone; ///< Services that are forgotten when they have stopped.
    std::function<void()> m_stopped;
};

} // namespace supervisor
