#include "Hub.h"

#include <cctype>
#include <iostream>
#include <utility>

namespace gateway {

namespace {

constexpr std::size_t LONGEST_LINE = 128;
constexpr std::size_t MOST_VALUES = 10000;

std::string join(std::set<std::string> const& words) {
    std::string text;
    for (std::string const& word : words) {
        text += " [" + word + "]";
    }
    return text;
}

/// Names and values are single words of printable characters.
bool isWord(std::string_view text) {
    for (char const character : text) {
        if (std::isgraph(static_cast<unsigned char>(character)) == 0) {
            return false;
        }
    }
    return !text.empty();
}

} // namespace

void Hub::remove(Client& client) {
    m_clients.erase(&client);
    m_watchers.erase(&client);
}

bool Hub::take(Client& client, std::string_view data) {
    while (!data.empty()) {
        std::size_t const end = data.find('\n');
        client.m_line += data.substr(0, end);
        if (client.m_line.size() > LONGEST_LINE) {
            return true;
        }
        if (end == std::string_view::npos) {
            return false;
        }
        data.remove_prefix(end + 1);
        if (carryOut(client, std::exchange(client.m_line, {}))) {
            return true;
        }
    }
    return false;
}

bool Hub::carryOut(Client& client, std::string const& line) {
    ++m_lines;
    if (line == "watch") {
        m_watchers.insert(&client);
        for (auto const& [name, value] : m_values) {
            client.send(name + ' ' + value + '\n');
        }
        return false;
    }
    if (line == "status") {
        client.send(status());
        return false;
    }
    std::size_t const blank = line.find(' ');
    std::string const name = line.substr(0, blank);
    std::string const value = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (!isWord(name) || !isWord(value) || (m_values.size() == MOST_VALUES && m_values.count(name) == 0)) {
        return true;
    }
    m_values[name] = value;
    tellWatchers(line + '\n');
    return false;
}

void Hub::tellWatchers(std::string const& text) {
    for (Client* const watcher : m_watchers) {
        watcher->send(text);
    }
}

std::string Hub::status() const {
    Numbers const all = numbers();
    return "clients " + std::to_string(all.clients) + " values " + std::to_string(all.values) + " lines " +
        std::to_string(all.lines) + " links" + join(m_links) + " peers" + join(m_peers) + "\n";
}

void Hub::setLink(std::string const& address, bool is_there) {
    static_cast<void>(is_there ? m_links.insert(address).second : m_links.erase(address) != 0);
    std::cout << (is_there ? "link " : "no link ") << address << std::endl;
}

void Hub::setPeer(std::string const& name, bool is_there) {
    static_cast<void>(is_there ? m_peers.insert(name).second : m_peers.erase(name) != 0);
    std::cout << (is_there ? "peer " : "no peer ") << name << std::endl;
}

std::string announcement(std::string const& name, unsigned short port, Hub::Numbers const& numbers) {
    return "gateway " + name + " port " + std::to_string(port) + " clients " +
        std::to_string(numbers.clients) + " values " + std::to_string(numbers.values);
}

} // namespace gateway
