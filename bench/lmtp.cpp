// lmtp - delivers messages and tells how long it took.
//
// usage: lmtp limit DIRECTORY... -- SIZE THREADS COUNT     writes, flushes and links each message
// itself
//        lmtp socket PATH ADDRESS... -- SIZE THREADS COUNT hands them to a service over LMTP
//
// Thread n of the threads takes every n-th message; message n goes to directory or address n.
// Prints the seconds. A message's text is SIZE bytes with CR LF over LMTP, and as it is stored in
// the limit.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::string;
using Places = std::vector<string>;

void require(bool holds, const char* what) {
    if (holds) return;
    std::perror(what);
    std::exit(1);
}

string text_of(std::size_t size, const char* line_end) {
    string text = string("Subject: figures") + line_end + line_end;
    while (text.size() < size)
        text += string("A line of a message, as they are in mail.") + line_end;
    return text;
}

void write_all(int fd, const string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        require(n > 0, "write");
        done += static_cast<std::size_t>(n);
    }
}

// ---- the limit

void deliver_bare(const string& folder, const string& text, long number) {
    const string name =
        folder + "/new/" + std::to_string(::getpid()) + "." + std::to_string(number);
    const int fd = ::open((folder + "/tmp").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    require(fd >= 0, folder.c_str());
    write_all(fd, text);
    require(::fsync(fd) == 0, "fsync");
    const string own = "/proc/self/fd/" + std::to_string(fd);
    require(::linkat(AT_FDCWD, own.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0,
            "linkat");
    const int dir = ::open((folder + "/new").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(dir >= 0 && ::fsync(dir) == 0, "fsync");
    ::close(dir);
    ::close(fd);
}

// ---- over LMTP

class Client {
  public:
    explicit Client(const string& path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        require(
            ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            path.c_str());
        expect("220");
        write_all(socket_, "LHLO bench\r\n");
        expect("250");
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { ::close(socket_); }

    // As transfer agents do: the envelope at once, then the text.
    void deliver(const string& address, const string& text) {
        write_all(socket_, "MAIL FROM:<bench@site.test>\r\nRCPT TO:<" + address + ">\r\nDATA\r\n");
        for (const char* code : {"250", "250", "354"}) expect(code);
        write_all(socket_, text);
        expect("250");
    }

  private:
    void expect(const char* code) {
        string line;
        do {
            line = next_line();
        } while (line.size() > 3 && line[3] == '-');
        if (line.compare(0, 3, code) == 0) return;
        std::fprintf(stderr, "lmtp: %s instead of %s\n", line.c_str(), code);
        std::exit(1);
    }
    string next_line() {
        std::size_t end;
        while ((end = held_.find('\n')) == string::npos) {
            char piece[4096];
            const ssize_t n = ::read(socket_, piece, sizeof piece);
            require(n > 0, "read");
            held_.append(piece, static_cast<std::size_t>(n));
        }
        string line = held_.substr(0, end);
        held_.erase(0, end + 1);
        return line;
    }

    int socket_;
    string held_;
};

// ---- threads

double seconds_of(long threads, const std::function<void(long)>& work) {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::thread> running;
    for (long n = 0; n < threads; ++n) running.emplace_back(work, n);
    for (std::thread& thread : running) thread.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double run_limit(const Places& folders, std::size_t size, long threads, long count) {
    const string text = text_of(size, "\n");
    return seconds_of(threads, [&](long first) {
        for (long n = first; n < count; n += threads) {
            deliver_bare(folders[static_cast<std::size_t>(n) % folders.size()], text, n);
        }
    });
}

double run_socket(const string& path, const Places& addresses, std::size_t size, long threads,
                  long count) {
    const string text = text_of(size, "\r\n") + ".\r\n";
    return seconds_of(threads, [&](long first) {
        Client client(path);
        for (long n = first; n < count; n += threads) {
            client.deliver(addresses[static_cast<std::size_t>(n) % addresses.size()], text);
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<string> words(argv + 1, argv + argc);
    if (argc < 7 || words[words.size() - 4] != "--") return 64;
    const auto size = static_cast<std::size_t>(std::atol(words[words.size() - 3].c_str()));
    const long threads = std::atol(words[words.size() - 2].c_str());
    const long count = std::atol(words.back().c_str());
    const bool limit = words[0] == "limit";
    const Places places(words.begin() + (limit ? 1 : 2), words.end() - 4);
    const double seconds = limit ? run_limit(places, size, threads, count)
                                 : run_socket(words[1], places, size, threads, count);
    std::printf("%.6f\n", seconds);
    return 0;
}
