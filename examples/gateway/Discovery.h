#pragma once

#include "Post.h"

#include <vesk/avahi/Plugin.h>

#include <functional>
#include <iostream>
#include <string>
#include <utility>

namespace gateway {

/// Publishes the gateway, and browses for others, through Avahi if the plug-in is installed; else does nothing.
class Discovery {
public:
    /// @param changed  is called in the thread of the gateway with the name of a gateway, and whether it is there
    Discovery(Post post, std::function<void(std::string const&, bool)> changed)
        : m_browser(std::move(post), std::move(changed)) {
        if (!m_plugin.isLoaded()) {
            std::cout << "no service discovery: the plug-in is not installed" << std::endl;
        }
    }
    ~Discovery() {
        if (m_plugin.isLoaded()) {
            m_plugin.getEngine()->cancel(m_browser);
            m_plugin.getEngine()->cancel(m_service);
        }
    }

    /// Throws `std::invalid_argument` for a name that cannot be published.
    void start(std::string const& name, unsigned short port) {
        if (m_plugin.isLoaded()) {
            vesk::DnsSdBase::Txt txt;
            txt["protocol"] = "lines";
            m_plugin.getEngine()->publish(
                m_service, std::unicode::String::fromUTF8(name), TYPE, "local", port, txt);
            m_plugin.getEngine()->browse(m_browser, TYPE, "local");
        }
    }

private:
    static constexpr char const* TYPE = "_vesk-gateway._tcp";

    /// The callbacks come from the thread of the engine.
    class Browser : public vesk::DnsSdBase::Client {
    public:
        Browser(Post post, std::function<void(std::string const&, bool)> changed)
            : m_post(std::move(post)), m_changed(std::move(changed)) {}
        void error() override { std::cerr << "the service cannot be browsed" << std::endl; }
        void
        service_appeared(std::unicode::String const& name, std::string const&, std::string const&) override {
            m_post([this, text = name.toUTF8()] { m_changed(text, true); });
        }
        void service_disappeared(
            std::unicode::String const& name, std::string const&, std::string const&) override {
            m_post([this, text = name.toUTF8()] { m_changed(text, false); });
        }

    private:
        Post const m_post;
        std::function<void(std::string const&, bool)> const m_changed;
    };

    class Service : public vesk::DnsSdBase::Client {
    public:
        void error() override { std::cerr << "the service cannot be published" << std::endl; }
    };

    vesk::avahi::Plugin const m_plugin;
    Browser m_browser;
    Service m_service;
};

} // namespace gateway
