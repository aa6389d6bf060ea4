#pragma once

#include "Config.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace supervisor {

/// A supervised program, whatever starts it and calls back for it.
class AnyService {
public:
    virtual ~AnyService() = default;
    virtual void start() = 0;
    /// Ends the program, and calls back when it has ended.
    virtual void stop(std::function<void()> stopped) = 0;
    /// Replaces the configuration, and restarts a running program.
    virtual void change(ServiceConfig config) = 0;
    virtual ServiceConfig const& config() const = 0;
    /// Returns "NAME GROUP STATE PID RESTARTS LAST-END".
    virtual std::string status() const = 0;
};

/// All services of a configuration file: what to do when it has changed, and at a command. One thread only.
class Services {
public:
    using Make =
        std::function<std::shared_ptr<AnyService>(std::string const& name, ServiceConfig const& config)>;
    using Post = std::function<void(std::function<void()> call)>;

    /// @param make  makes a service
    /// @param post  calls back later, when no service calls back
    Services(std::string config_path, Make make, Post post);

    bool isEmpty() const { return m_services.empty(); }
    /// Reads the configuration again, and starts, stops and restarts what has changed. If the file has a mistake, nothing
    /// changes.
    void reload();
    /// Stops all services, and calls back when they have ended.
    void stop(std::function<void()> stopped);
    /// Carries out a command, and returns the answer.
    std::string answer(std::string const& line);

private:
    void remove(std::string const& name);
    void reportIfStopped();

    std::string m_config_path;
    Make m_make;
    Post m_post;
    std::map<std::string, std::shared_ptr<AnyService>> m_services;
    std::function<void()> m_stopped;
};

} // namespace supervisor
