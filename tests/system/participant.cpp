// Plays a participant of the exchange that does as it is told, be it ever so wrong: bare libdbus, so that no
// library keeps it from misbehaving. It reads orders from standard input, one a line with tabs between the
// words, and answers each with one line; the end of its input is its own. Being slow, silent or dead is up to
// who holds the other end.
//
//     participant ADDRESS NAME
//
// clang-format off
//     receive                        -> "Request<tab>NAME<tab>DATA", "Message<tab>NAME<tab>DATA" or "Respond<tab><tab>DATA"
//     answer N TYPE FILE             -> "done"; an answer to the N-th of what was received (from 0), any number of times
//     error N TEXT                   -> "done"; an error in place of the answer
//     malformed N                    -> "done"; an answer of another signature
//     emit NAME FILE                 -> "done"; an event
//     emit-malformed                 -> "done"; an event of another signature
//     sync                           -> "done", once the bus has answered; the program's end when it has gone
//     storm NAME FIRST COUNT SIZE    -> "done"; COUNT events, whose data are their numbers from FIRST on, in SIZE digits
// clang-format on

#include "exchange_support.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace {

using Words = std::vector<std::string>;

Words split(const std::string& line)
{
    Words words;
    std::size_t from = 0;
    for (std::size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', from)) {
        words.push_back(line.substr(from, tab - from));
        from = tab + 1;
    }
    words.push_back(line.substr(from));
    return words;
}

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot open " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Puppet {
public:
    Puppet(const std::string& address, const std::string& name) : m_peer(address, name) {}

    std::string obey(const Words& order);

private:
    std::string receive();
    DBusMessage& received(const std::string& number) { return *m_received.at(std::stoul(number)); }
    void answer_malformed(DBusMessage& request);
    void emit_malformed();
    void storm(const Words& order);

    RawPeer m_peer;
    std::vector<RawMessage> m_received;
};

std::string Puppet::receive()
{
    RawMessage message = m_peer.receive();
    const auto content = content_of(message);
    if (!content)
        throw std::runtime_error("nothing received");
    std::string line = member_of(message) + '\t' + content->text + '\t' + content->bytes;
    m_received.push_back(std::move(message));
    return line;
}

void Puppet::answer_malformed(DBusMessage& request)
{
    const RawMessage reply = raw_reply(request);
    add_number(*reply, 0);
    m_peer.send(reply);
}

void Puppet::emit_malformed()
{
    const RawMessage signal = raw_signal("Event");
    add_text(*signal, "registration_status_changed"); // what the daemon always listens to
    add_number(*signal, 0);
    m_peer.send(signal);
}

void Puppet::storm(const Words& order)
{
    const unsigned long first = std::stoul(order.at(2));
    const unsigned long count = std::stoul(order.at(3));
    const std::size_t size = std::stoul(order.at(4));
    for (unsigned long number = first; number < first + count; ++number) {
        const std::string digits = std::to_string(number);
        m_peer.emit(order.at(1), std::string(size - digits.size(), '0') + digits, number + 1);
    }
}

std::string Puppet::obey(const Words& order)
{
    const std::string& verb = order.at(0);
    if (verb == "receive")
        return receive();
    if (verb == "answer")
        m_peer.answer(received(order.at(1)), order.at(2), read_file(order.at(3)));
    else if (verb == "error")
        m_peer.answer_with_error(received(order.at(1)), order.at(2));
    else if (verb == "malformed")
        answer_malformed(received(order.at(1)));
    else if (verb == "emit")
        m_peer.emit(order.at(1), read_file(order.at(2)));
    else if (verb == "emit-malformed")
        emit_malformed();
    else if (verb == "sync")
        m_peer.sync();
    else if (verb == "storm")
        storm(order);
    else
        throw std::runtime_error("no such order: " + verb);
    return "done";
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: participant ADDRESS NAME\n";
        return 2;
    }
    try {
        Puppet puppet(argv[1], argv[2]);
        std::cout << "ready" << std::endl;
        for (std::string line; std::getline(std::cin, line);)
            std::cout << puppet.obey(split(line)) << std::endl;
        return 0;
    } catch (const std::exception& problem) {
        std::cerr << "participant: " << problem.what() << '\n';
        return 1;
    }
}
