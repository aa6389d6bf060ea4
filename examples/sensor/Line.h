#pragma once

#include "End.h"
#include "Parser.h"

#include <vesk/SerialPort.h>
#include <vesk/Thread.h>

#include <string>

namespace sensor {

/// A serial line with a thread that reads it, and that opens it again when it was gone.
class Line {
public:
    /// The owner of a line. All calls come from the thread of the line.
    class Client {
    public:
        virtual void lineOpened() = 0;
        virtual void lineLost(std::string const& why) = 0;
        virtual void take(Reading const& reading) = 0;
        virtual void takeBadLines(unsigned int count) = 0;

    protected:
        ~Client() = default;
    };

    Line(std::string const& device, Client& client);
    ~Line() { stop(); }
    /// Starts the thread. Returns true on failure.
    [[nodiscard]] bool start();
    /// Ends the thread, without waiting for data.
    void stop();

private:
    void run();
    void open();
    void read();
    void lose();

    Client& m_client;
    vesk::SerialPort m_port;
    Parser m_parser;
    examples::End m_end;
    vesk::Thread m_thread;
    bool m_is_started = false;
    bool m_is_reported = false; ///< Whether the client knows that the line is gone.
};

} // namespace sensor
