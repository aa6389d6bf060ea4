#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace gateway {

/// What the gateway knows, and its language. Knows nothing of sockets, so both versions of the gateway share it.
class Hub {
public:
    /// A client of the gateway.
    class Client {
    public:
        virtual ~Client() = default;
        /// Sends a text, later if the client does not read now. Must not destroy any client.
        virtual void send(std::string_view text) = 0;

    private:
        friend class Hub;
        std::string m_line; ///< The beginning of a line.
    };

    /// The numbers in an answer or an announcement.
    struct Numbers {
        std::size_t clients;
        std::size_t values;
        std::size_t lines; ///< Those received since the start.
    };

    void add(Client& client) { m_clients.insert(&client); }
    void remove(Client& client);
    /// Takes what a client has sent. Returns true if the client breaks the rules and must go.
    [[nodiscard]] bool take(Client& client, std::string_view data);

    void setLink(std::string const& address, bool is_there);
    void setPeer(std::string const& name, bool is_there);

    Numbers numbers() const { return {m_clients.size(), m_values.size(), m_lines}; }

private:
    [[nodiscard]] bool carryOut(Client& client, std::string const& line);
    void tellWatchers(std::string const& text);
    std::string status() const;

    std::set<Client*> m_clients;
    std::set<Client*> m_watchers;
    std::map<std::string, std::string> m_values;
    std::set<std::string> m_links;
    std::set<std::string> m_peers;
    std::size_t m_lines = 0;
};

/// The text of an announcement.
std::string announcement(std::string const& name, unsigned short port, Hub::Numbers const& numbers);

} // namespace gateway
