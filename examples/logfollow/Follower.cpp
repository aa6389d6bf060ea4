#include "Follower.h"

#include <iostream>
#include <utility>

namespace logfollow {

Follower::Follower(std::string config_path, std::string state_path)
    : m_config_path(std::move(config_path)), m_state_path(std::move(state_path)) {}

bool Follower::readConfig() {
    auto config = std::make_unique<Config>();
    std::string problem;
    if (logfollow::readConfig(m_config_path, *config, problem)) {
        std::cerr << problem << std::endl;
        return true;
    }
    m_config = std::move(config);
    return false;
}

bool Follower::start() {
    State state;
    std::string problem;
    if (readConfig()) {
        return true;
    }
    if (readState(m_state_path, state, problem)) {
        std::cerr << problem << std::endl;
        return true;
    }
    for (Record const& record : state) {
        restore(record);
    }
    look();
    return false;
}

void Follower::reload() {
    std::cout << (readConfig() ? "configuration unchanged" : "configuration read") << std::endl;
    look();
}

void Follower::restore(Record const& record) {
    std::string const folder = record.path.substr(0, record.path.rfind('/'));
    forEachFile(folder, [&](std::string const& name, vesk::FileInfo const& info) {
        Tail tail;
        if (FileId(info) == record.id && !tail.open(folder + '/' + name, record.position)) {
            // Of two files of a name, the state has the previous one first.
            Log& log = m_logs[record.path];
            log.previous = std::exchange(log.current, std::move(tail));
        }
    });
}

void Follower::look() {
    for (std::string const& folder : m_config->folders) {
        forEachFile(folder, [&](std::string const& name, vesk::FileInfo const& info) {
            if (m_config->files.match(name.c_str()) == 0) {
                lookAt(std::string(folder).append("/").append(name), info);
            }
        });
    }
}

void Follower::lookAt(std::string const& path, vesk::FileInfo const& info) {
    Log& log = m_logs[path];
    if (log.current.isOpen() && log.current.id() == FileId(info)) {
        return;
    }
    Tail next;
    if (next.open(path, 0) || (log.current.isOpen() && next.id() == log.current.id())) {
        return; // Gone again, or no right to read it: the next look tries again.
    }
    while (read(path, log.previous)) {}
    log.previous = std::exchange(log.current, std::move(next));
    m_has_changed = true;
}

bool Follower::read() {
    bool has_more = false;
    for (auto entry = m_logs.begin(); entry != m_logs.end();) {
        auto& [path, log] = *entry;
        // First what is older.
        bool const has_more_of_previous = read(path, log.previous);
        has_more = has_more_of_previous || read(path, log.current) || has_more;
        bool const is_over = !log.previous.isOpen() && !log.current.isOpen();
        entry = is_over ? m_logs.erase(entry) : std::next(entry);
    }
    std::cout << std::flush;
    return has_more;
}

bool Follower::read(std::string const& path, Tail& tail) {
    bool const was_open = tail.isOpen();
    long long const position = tail.position();
    bool const has_more = tail.read([&](std::string const& line) {
        std::string const text = m_config->apply(line);
        if (!text.empty()) {
            std::cout << path << ": " << text << '\n';
        }
    });
    m_has_changed = m_has_changed || tail.position() != position || tail.isOpen() != was_open;
    return has_more;
}

void Follower::save() {
    if (!m_has_changed) {
        return;
    }
    State state;
    for (auto const& [path, log] : m_logs) {
        for (Tail const* const tail : {&log.previous, &log.current}) {
            if (tail->isOpen()) {
                state.push_back({tail->id(), tail->position(), path});
            }
        }
    }
    std::string problem;
    m_has_changed = writeState(m_state_path, state, problem);
    if (m_has_changed && !m_is_reported) {
        std::cerr << problem << std::endl; // Once: it is tried again each second.
    }
    m_is_reported = m_has_changed;
}

} // namespace logfollow
