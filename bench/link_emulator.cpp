// A TCP proxy on loopback that makes every connection through it behave as
// if it crossed a network link with a one-way delay and a rate limit, in user
// space (no root, no netem). The benches put it in front of nginx to see how
// a download client does over a link with latency.
//
//   link_emulator --listen-port 0 --target 127.0.0.1:PORT --delay-ms 25 --rate-mbit 1000
//
// It listens on 127.0.0.1 (port 0: any free one) and prints the port it got as
// the first line on stdout. Each accepted connection gets its own connection
// to the target, and bytes are relayed both ways, each way on its own:
//
// Delay. Every read is stamped with the time it completed; its bytes are
//   written no earlier than that time plus the one-way delay. Reads are
//   stamped in order, so the stamps never go backwards and ordering holds.
//   End of stream is delayed the same way: a side's FIN (or reset) reaches
//   the other side one delay after it was read, behind all earlier bytes.
//
// Rate. Each direction of each connection has its own token bucket filled at
//   the rate (payload bytes; 1 Mbit = 10^6 bits). A write waits until a
//   quantum of tokens (1 ms of the rate, at least 16 KiB) or all the bytes
//   that are due are covered, then writes what the tokens allow. The bucket
//   holds four quanta: bursts stay within about 4 ms of the rate, and on a
//   busy machine a timer that fires up to 3 ms late loses no rate. Rate 0:
//   no pacing.
//
// Back-pressure. Each direction holds its bytes in a fixed ring of
//   rate x delay + 256 KiB (4 MiB when the rate is unlimited): what a link of
//   that rate keeps in flight plus some queue. When the ring is full the
//   emulator stops reading from that side, so the sender's kernel buffers
//   fill up and TCP slows it, instead of the emulator buffering without
//   limit. With an unlimited rate this caps a connection at 4 MiB per delay.
//
// Connection set-up. A client's connect() to the emulator completes at once
//   (the kernel finishes the handshake before accept), so the set-up round
//   trip is charged on the data instead. On a real link the client's connect
//   returns one round trip (2 x delay) after its SYN, and its first bytes
//   reach the server one delay later, together with the handshake's last
//   ACK, which is also when the server's accept returns. So the emulator
//   opens its connection to the target only connect-delay + delay after the
//   accept (connect-delay defaults to 2 x delay, one round trip), and holds
//   the client's bytes until then. Bytes the client sent right away reach the
//   target at 3 x delay and the first answer gets back at 4 x delay: two
//   round trips for connect plus request, as on a real link, against one for
//   a request on a connection already open. A server that speaks first is
//   heard at 4 x delay too. --connect-delay-ms 0 makes set-up free.
//
// Not modelled: loss, jitter, and TCP's own window growth (slow start): a
// connection runs at the full rate from its first byte, as a well-tuned
// sender on a clean path does once it has ramped up.
//
// Both sides are TCP_NODELAY, so small writes go out when they are due.
// Close propagates: after a side's end of stream has been delivered the
// emulator shuts down sending to the other side; when both directions have
// ended, or a write fails or a side resets, both sockets are closed.
//
// It runs one event loop thread (--threads 2: two, connections alternate
// between them), stops on SIGTERM or SIGINT, and after --max-seconds (default
// 3600) in any case, so it never outlives a bench that forgot it. On exit it
// prints connection and byte counts on stderr.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/asio.hpp>

namespace asio = boost::asio;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using boost::system::error_code;

namespace {

struct LinkSettings {
  Clock::duration delay{};
  Clock::duration connectDelay{};
  double bytesPerSecond = 0;  // 0: unlimited
  size_t ringBytes = 0;
  size_t quantum = 0;         // the pacing unit, bytes
  size_t bucket = 0;          // the token bucket's size, bytes
};

struct Totals {
  std::atomic<uint64_t> connections{0};
  std::atomic<uint64_t> toTarget{0};
  std::atomic<uint64_t> fromTarget{0};
};

// Smallest free space worth a read; below it the reader waits for the writer.
constexpr size_t kMinRead = 16 * 1024;

class Connection;

// One way of a connection: reads from `from` into a ring, writes to `to` when
// the bytes are due and the token bucket allows.
class Direction {
 public:
  Direction(Connection& connection, tcp::socket& from, tcp::socket& to, const LinkSettings& link,
            std::atomic<uint64_t>& total)
      : connection_(connection), from_(from), to_(to), link_(link), total_(total), timer_(from.get_executor()),
        ring_(new char[link.ringBytes]), tokens_(static_cast<double>(link.bucket)),
        refilled_(Clock::now()) {}

  void startReading();
  void allowWriting() { writable_ = true; pump(); }
  void cancel() { timer_.cancel(); }
  bool finished() const { return finished_; }

 private:
  size_t queued() const { return static_cast<size_t>(readTotal_ - written_); }
  std::array<asio::mutable_buffer, 2> span(uint64_t offset, size_t length);
  void onRead(const error_code& error, size_t bytes);
  void pump();
  void waitUntil(Clock::time_point when);
  void onWritten(const error_code& error, size_t bytes);
  void refill(Clock::time_point now);

  struct Mark {
    uint64_t end;  // stream offset just past the bytes of one read
    Clock::time_point due;
  };

  Connection& connection_;
  tcp::socket& from_;
  tcp::socket& to_;
  const LinkSettings& link_;
  std::atomic<uint64_t>& total_;
  asio::steady_timer timer_;
  std::unique_ptr<char[]> ring_;  // pages are touched only as far as the ring gets used
  uint64_t readTotal_ = 0;        // stream offsets: bytes read, due, written
  uint64_t dueEnd_ = 0;
  uint64_t written_ = 0;
  std::deque<Mark> marks_;
  double tokens_;
  Clock::time_point refilled_;
  Clock::time_point endDue_{};
  bool reading_ = false, paused_ = false, ended_ = false, reset_ = false;
  bool writable_ = false, writing_ = false, waiting_ = false, finished_ = false;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket client, tcp::endpoint target, const LinkSettings& link, Totals& totals)
      : client_(std::move(client)), server_(client_.get_executor()), target_(target), link_(link),
        connectTimer_(client_.get_executor()), up_(*this, client_, server_, link, totals.toTarget),
        down_(*this, server_, client_, link, totals.fromTarget) {}

  void start() {
    error_code ignored;
    client_.set_option(tcp::no_delay(true), ignored);
    up_.startReading();
    connectTimer_.expires_after(link_.connectDelay + link_.delay);
    connectTimer_.async_wait([self = shared_from_this()](const error_code& error) {
      if (error || self->closed_) return;
      self->server_.async_connect(self->target_, [self](const error_code& error) {
        if (self->closed_) return;
        if (error) {
          std::fprintf(stderr, "link_emulator: connect to target: %s\n", error.message().c_str());
          self->closeAll();
          return;
        }
        error_code ignored;
        self->server_.set_option(tcp::no_delay(true), ignored);
        self->up_.allowWriting();
        self->down_.allowWriting();
        self->down_.startReading();
      });
    });
  }

  bool closed() const { return closed_; }
  std::shared_ptr<Connection> self() { return shared_from_this(); }

  void directionFinished() {
    if (up_.finished() && down_.finished()) closeAll();
  }

  void closeAll() {
    if (closed_) return;
    closed_ = true;
    error_code ignored;
    connectTimer_.cancel();
    up_.cancel();
    down_.cancel();
    client_.close(ignored);
    server_.close(ignored);
  }

 private:
  tcp::socket client_;
  tcp::socket server_;
  tcp::endpoint target_;
  const LinkSettings& link_;
  asio::steady_timer connectTimer_;
  bool closed_ = false;
  Direction up_;    // client to target
  Direction down_;  // target to client
};

std::array<asio::mutable_buffer, 2> Direction::span(uint64_t offset, size_t length) {
  const size_t size = link_.ringBytes;
  const size_t start = static_cast<size_t>(offset % size);
  const size_t first = std::min(length, size - start);
  return {asio::buffer(ring_.get() + start, first), asio::buffer(ring_.get(), length - first)};
}

void Direction::startReading() {
  if (reading_ || ended_ || connection_.closed()) return;
  const size_t space = link_.ringBytes - queued();
  if (space < kMinRead) {
    paused_ = true;  // the writer resumes reading once it has made room
    return;
  }
  paused_ = false;
  reading_ = true;
  from_.async_read_some(span(readTotal_, space),
                        [this, self = connection_.self()](const error_code& error, size_t bytes) {
                          onRead(error, bytes);
                        });
}

void Direction::onRead(const error_code& error, size_t bytes) {
  reading_ = false;
  if (connection_.closed()) return;
  const auto now = Clock::now();
  if (bytes > 0) {
    readTotal_ += bytes;
    total_.fetch_add(bytes, std::memory_order_relaxed);
    marks_.push_back({readTotal_, now + link_.delay});
  }
  if (error) {
    ended_ = true;
    reset_ = error != asio::error::eof;
    endDue_ = now + link_.delay;
  } else {
    startReading();
  }
  pump();
}

void Direction::refill(Clock::time_point now) {
  const double elapsed = std::chrono::duration<double>(now - refilled_).count();
  tokens_ = std::min(static_cast<double>(link_.bucket), tokens_ + elapsed * link_.bytesPerSecond);
  refilled_ = now;
}

void Direction::waitUntil(Clock::time_point when) {
  waiting_ = true;
  timer_.expires_at(when);
  timer_.async_wait([this, self = connection_.self()](const error_code& error) {
    waiting_ = false;
    if (error || connection_.closed()) return;
    pump();
  });
}

// Writes whatever is due and paid for; otherwise sets the timer for when it
// will be. Does nothing while a write or a wait is under way: their
// completions call it again.
void Direction::pump() {
  if (!writable_ || writing_ || waiting_ || finished_ || connection_.closed()) return;
  const auto now = Clock::now();
  while (!marks_.empty() && marks_.front().due <= now) {
    dueEnd_ = marks_.front().end;
    marks_.pop_front();
  }
  const size_t due = static_cast<size_t>(dueEnd_ - written_);
  if (due == 0) {
    if (!marks_.empty()) {
      waitUntil(marks_.front().due);
    } else if (ended_ && endDue_ > now) {
      waitUntil(endDue_);
    } else if (ended_) {
      finished_ = true;
      if (reset_) {
        connection_.closeAll();
      } else {
        error_code ignored;
        to_.shutdown(tcp::socket::shutdown_send, ignored);
        connection_.directionFinished();
      }
    }
    return;
  }
  size_t length = due;
  if (link_.bytesPerSecond > 0) {
    refill(now);
    const double wanted = static_cast<double>(std::min(due, link_.quantum));
    if (tokens_ < wanted) {
      const auto wait = std::chrono::duration<double>((wanted - tokens_) / link_.bytesPerSecond);
      waitUntil(now + std::chrono::duration_cast<Clock::duration>(wait) + std::chrono::microseconds(1));
      return;
    }
    length = std::min(due, static_cast<size_t>(tokens_));
  }
  writing_ = true;
  to_.async_write_some(span(written_, length),
                       [this, self = connection_.self()](const error_code& error, size_t bytes) {
                         onWritten(error, bytes);
                       });
}

void Direction::onWritten(const error_code& error, size_t bytes) {
  writing_ = false;
  if (connection_.closed()) return;
  if (error) {
    connection_.closeAll();  // the receiving side is gone: drop the whole connection
    return;
  }
  written_ += bytes;
  if (link_.bytesPerSecond > 0) tokens_ -= static_cast<double>(bytes);
  if (paused_ && link_.ringBytes - queued() >= kMinRead) startReading();
  pump();
}

class Emulator {
 public:
  Emulator(std::vector<std::unique_ptr<asio::io_context>>& contexts, tcp::endpoint target, const LinkSettings& link,
           Totals& totals)
      : contexts_(contexts), acceptor_(*contexts[0]), target_(target), link_(link), totals_(totals) {}

  unsigned short listen(unsigned short port) {
    tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(asio::socket_base::max_listen_connections);
    return acceptor_.local_endpoint().port();
  }

  void accept() {
    auto& context = *contexts_[next_++ % contexts_.size()];
    acceptor_.async_accept(context, [this](const error_code& error, tcp::socket socket) {
      if (error == asio::error::operation_aborted) return;
      if (!error) {
        ++totals_.connections;
        // Start it on the context that owns the socket.
        asio::post(socket.get_executor(), [connection = std::make_shared<Connection>(std::move(socket), target_,
                                                                                    link_, totals_)] {
          connection->start();
        });
      }
      accept();
    });
  }

  void stop() {
    error_code ignored;
    acceptor_.close(ignored);
    for (auto& context : contexts_) context->stop();
  }

 private:
  std::vector<std::unique_ptr<asio::io_context>>& contexts_;
  tcp::acceptor acceptor_;
  tcp::endpoint target_;
  const LinkSettings& link_;
  Totals& totals_;
  size_t next_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"TCP proxy on loopback that adds a one-way delay and a per-connection rate limit"};
  int listenPort = 0;
  std::string target;
  double delayMs = 0, rateMbit = 0, connectDelayMs = -1;
  double maxSeconds = 3600;
  int threads = 1;
  app.add_option("--listen-port", listenPort, "port on 127.0.0.1; 0 picks a free one")->check(CLI::Range(0, 65535));
  app.add_option("--target", target, "HOST:PORT to relay to (an IPv4 address)")->required();
  app.add_option("--delay-ms", delayMs, "one-way delay, each direction")->check(CLI::NonNegativeNumber);
  app.add_option("--rate-mbit", rateMbit, "rate per connection and direction, Mbit/s; 0 = unlimited")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--connect-delay-ms", connectDelayMs, "extra cost of a connection's set-up; default 2 x delay")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--max-seconds", maxSeconds, "exit after this long in any case")->check(CLI::PositiveNumber);
  app.add_option("--threads", threads, "event loop threads")->check(CLI::Range(1, 2));
  CLI11_PARSE(app, argc, argv);

  const auto colon = target.rfind(':');
  error_code error;
  const auto address = asio::ip::make_address(target.substr(0, colon == std::string::npos ? 0 : colon), error);
  if (colon == std::string::npos || error) {
    std::fprintf(stderr, "link_emulator: --target wants HOST:PORT with a numeric host, got %s\n", target.c_str());
    return 2;
  }
  const tcp::endpoint targetEndpoint(address, static_cast<unsigned short>(std::stoi(target.substr(colon + 1))));

  auto toDuration = [](double ms) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(ms));
  };
  LinkSettings link;
  link.delay = toDuration(delayMs);
  link.connectDelay = toDuration(connectDelayMs < 0 ? 2 * delayMs : connectDelayMs);
  link.bytesPerSecond = rateMbit * 1e6 / 8;
  link.ringBytes = link.bytesPerSecond > 0
                       ? static_cast<size_t>(link.bytesPerSecond * delayMs / 1000) + 256 * 1024
                       : 4 * 1024 * 1024;
  link.quantum = std::max<size_t>(static_cast<size_t>(link.bytesPerSecond / 1000), 16 * 1024);
  link.bucket = 4 * link.quantum;

  std::signal(SIGPIPE, SIG_IGN);
  std::vector<std::unique_ptr<asio::io_context>> contexts;
  for (int i = 0; i < threads; ++i) contexts.push_back(std::make_unique<asio::io_context>(1));
  Totals totals;
  Emulator emulator(contexts, targetEndpoint, link, totals);
  unsigned short port = 0;
  try {
    port = emulator.listen(static_cast<unsigned short>(listenPort));
  } catch (const boost::system::system_error& failure) {
    std::fprintf(stderr, "link_emulator: listen: %s\n", failure.what());
    return 1;
  }
  std::printf("%u\n", port);
  std::fflush(stdout);

  asio::signal_set signals(*contexts[0], SIGTERM, SIGINT);
  signals.async_wait([&](const error_code& error, int) {
    if (!error) emulator.stop();
  });
  asio::steady_timer deadline(*contexts[0]);
  deadline.expires_after(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(maxSeconds)));
  deadline.async_wait([&](const error_code& error) {
    if (error) return;
    std::fprintf(stderr, "link_emulator: --max-seconds reached, stopping\n");
    emulator.stop();
  });
  emulator.accept();

  // The second thread's context has no work of its own until a connection
  // lands on it, so a guard keeps it running until stop().
  std::vector<asio::executor_work_guard<asio::io_context::executor_type>> guards;
  std::vector<std::thread> workers;
  for (size_t i = 1; i < contexts.size(); ++i) {
    guards.push_back(asio::make_work_guard(*contexts[i]));
    workers.emplace_back([&context = *contexts[i]] { context.run(); });
  }
  contexts[0]->run();
  for (auto& worker : workers) worker.join();
  std::fprintf(stderr, "link_emulator: %llu connections, %llu bytes to the target, %llu bytes from it\n",
               static_cast<unsigned long long>(totals.connections.load()),
               static_cast<unsigned long long>(totals.toTarget.load()),
               static_cast<unsigned long long>(totals.fromTarget.load()));
  return 0;
}
