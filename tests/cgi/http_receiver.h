/* SPDX-License-Identifier: MIT */
/** Receives one POST of a real client on the loopback interface. */
#ifndef CORVEL_TESTS_HTTP_RECEIVER_H
#define CORVEL_TESTS_HTTP_RECEIVER_H

#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace corvel_test {

/** A request as received. */
struct ReceivedRequest {
    std::string type; /**< The content type. */
    std::string body;
    std::string client_output;
    int client_status = -1;
};

class HttpReceiver {
  public:
    HttpReceiver() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        require(listener_ >= 0 && bind(listener_, generic, size) == 0 &&
                    listen(listener_, 1) == 0 && getsockname(listener_, generic, &size) == 0,
                "cannot listen");
        port_ = std::to_string(ntohs(address.sin_port));
    }
    HttpReceiver(const HttpReceiver &) = delete;
    HttpReceiver &operator=(const HttpReceiver &) = delete;
    ~HttpReceiver() { close(listener_); }

    [[nodiscard]] const std::string &port() const { return port_; }

    /** Runs a client with the shell, receives its request and sends a response. */
    [[nodiscard]] ReceivedRequest receive_from(const std::string &command) const {
        std::FILE *const client = popen((command + " 2>&1 </dev/null").c_str(), "r");
        require(client != nullptr, "cannot start the client");
        ReceivedRequest request;
        if (readable(listener_)) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            require(connection >= 0, "accept");
            receive(connection, request);
            close(connection);
        }
        char byte = 0;
        while (std::fread(&byte, 1, 1, client) == 1)
            request.client_output += byte;
        request.client_status = pclose(client);
        return request;
    }

  private:
    static constexpr int timeout_milliseconds = 20000;

    static void require(bool done, const char *what) {
        if (!done)
            throw std::system_error(errno, std::generic_category(), what);
    }

    static bool readable(int descriptor) {
        pollfd wanted{descriptor, POLLIN, 0};
        return poll(&wanted, 1, timeout_milliseconds) == 1;
    }

    static bool read_more(int connection, std::string &bytes) {
        char piece[65536];
        const ssize_t length = readable(connection) ? read(connection, piece, sizeof piece) : 0;
        if (length > 0)
            bytes.append(piece, static_cast<std::size_t>(length));
        return length > 0;
    }

    static void send(int connection, std::string_view text) {
        require(write(connection, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
                "cannot write the response");
    }

    /** The value of a header; its name is given with the colon. */
    static std::string header(const std::string &headers, const std::string &name) {
        for (std::size_t line = 0; line < headers.size();) {
            const std::size_t end = headers.find("\r\n", line);
            if (strncasecmp(&headers[line], name.c_str(), name.size()) == 0) {
                const std::size_t value = headers.find_first_not_of(' ', line + name.size());
                return headers.substr(value, end - value);
            }
            line = end + 2;
        }
        return "";
    }

    static void receive(int connection, ReceivedRequest &request) {
        std::string bytes;
        std::size_t end = std::string::npos;
        while ((end = bytes.find("\r\n\r\n")) == std::string::npos)
            if (!read_more(connection, bytes))
                return;
        const std::string headers = bytes.substr(0, end + 2);
        request.type = header(headers, "Content-Type:");
        if (!header(headers, "Expect:").empty())
            send(connection, "HTTP/1.1 100 Continue\r\n\r\n");
        request.body = bytes.substr(end + 4);
        const std::size_t length = std::stoul("0" + header(headers, "Content-Length:"));
        while (request.body.size() < length && read_more(connection, request.body))
            continue;
        send(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    }

    int listener_;
    std::string port_;
};

} // namespace corvel_test

#endif
