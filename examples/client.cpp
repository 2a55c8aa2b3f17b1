// A client of orvbrokerd in C++, with the client library.
//
//   example_client call NAME [DATA]     prints the answer's data
//   example_client subscribe EVENT      prints each event, until it is interrupted

#include <orvbroker/client.h>

#include <iostream>
#include <string>

namespace {

enum Exit { kSuccess, kFailed, kUsage, kUnavailable };

int report(orvbroker::Error error)
{
    std::cerr << "orvbrokerd: " << orvbroker::message(error) << '\n';
    return kUnavailable;
}

int call(orvbroker::Client& client, const char* name, const char* data)
{
    orvbroker::Answer answer;
    const auto error = client.call(name, data, answer);
    if (error != orvbroker::Error::none)
        return report(error);
    (answer.status() == 0 ? std::cout : std::cerr) << answer.data() << '\n';
    return answer.status() == 0 ? kSuccess : kFailed;
}

int subscribe(orvbroker::Client& client, const char* event)
{
    std::string text;
    auto error = client.subscribe(event);
    while (error == orvbroker::Error::none) {
        error = client.next_event(text);
        if (error == orvbroker::Error::none)
            std::cout << text << std::endl; // at once, for whoever reads it in a pipe
    }
    return report(error);
}

} // namespace

int main(int argc, char** argv)
{
    const std::string action = argc > 1 ? argv[1] : "";
    const bool is_call = action == "call" && (argc == 3 || argc == 4);
    if (!is_call && !(action == "subscribe" && argc == 3)) {
        std::cerr << "usage: example_client call NAME [DATA] | subscribe EVENT\n";
        return kUsage;
    }
    orvbroker::Client client;
    const auto error = client.connect();
    if (error != orvbroker::Error::none)
        return report(error);
    return is_call ? call(client, argv[2], argc == 4 ? argv[3] : "") : subscribe(client, argv[2]);
}
