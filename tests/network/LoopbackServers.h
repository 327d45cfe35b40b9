// File: LoopbackServers.h
// Servers on 127.0.0.1 for the transport's suites: cpp-httplib servers (plain or TLS with a
// certificate made here), and a raw server whose handlers write whatever bytes they like,
// for answers no well-behaved server library would send.
#pragma once

#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace orvane::testing {

// A cpp-httplib server on a free port, stopped with the test.
template <typename ServerType = httplib::Server>
class LoopbackServer {
 public:
  template <typename... Args>
  explicit LoopbackServer(Args&&... args) : server_(std::forward<Args>(args)...) {
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~LoopbackServer() {
    server_.stop();
    thread_.join();
  }
  ServerType& server() { return server_; }
  int port() const { return port_; }
  std::string url(const std::string& path) const {
    const bool secure = std::is_same_v<ServerType, httplib::SSLServer>;
    return std::string(secure ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  ServerType server_;
  int port_ = 0;
  std::thread thread_;
};

// A self-signed certificate for 127.0.0.1 and its key, made with OpenSSL.
class TestCertificate {
 public:
  TestCertificate() : key_(EVP_EC_gen("P-256")), certificate_(X509_new()) {
    X509_set_version(certificate_, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate_), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate_), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate_), 3600);
    X509_set_pubkey(certificate_, key_);
    X509_NAME* name = X509_get_subject_name(certificate_);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(certificate_, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate_, certificate_, nullptr, nullptr, 0);
    if (X509_EXTENSION* names =
            X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "IP:127.0.0.1")) {
      X509_add_ext(certificate_, names, -1);
      X509_EXTENSION_free(names);
    }
    X509_sign(certificate_, key_, EVP_sha256());
  }
  ~TestCertificate() {
    X509_free(certificate_);
    EVP_PKEY_free(key_);
  }
  TestCertificate(const TestCertificate&) = delete;
  TestCertificate& operator=(const TestCertificate&) = delete;

  X509* certificate() const { return certificate_; }
  EVP_PKEY* key() const { return key_; }
  std::string pem() const {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, certificate_);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(length));
    BIO_free(bio);
    return text;
  }

 private:
  EVP_PKEY* key_;
  X509* certificate_;
};

// One accepted connection of a RawServer: the request it carried, and a way to answer.
class RawExchange {
 public:
  RawExchange(int fd, std::atomic<uint64_t>& sent) : fd_(fd), sent_(sent) {}
  std::string method;
  std::string path;
  std::string body;
  // False once the client is gone.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent_ += static_cast<uint64_t>(n);
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }
  // Waits until the client closes the connection or `seconds` pass; true when it closed.
  bool waitForClose(double seconds) {
    timeval limit{static_cast<time_t>(seconds), 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char byte;
    return ::recv(fd_, &byte, 1, 0) == 0;
  }

 private:
  int fd_;
  std::atomic<uint64_t>& sent_;
};

// Accepts connections one after another, reads each request and hands it to the handler,
// then closes the connection.
class RawServer {
 public:
  explicit RawServer(std::function<void(RawExchange&)> handler) : handler_(std::move(handler)) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 8);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawServer() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // Bytes written to clients so far.
  uint64_t bytesSent() const { return sent_; }

 private:
  void serve() {
    while (true) {
      const int fd = accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      RawExchange exchange(fd, sent_);
      if (readRequest(fd, exchange)) handler_(exchange);
      close(fd);
    }
  }
  static bool readRequest(int fd, RawExchange& exchange) {
    std::string data;
    char buffer[4096];
    size_t headEnd;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      data.append(buffer, static_cast<size_t>(n));
    }
    const std::string head = data.substr(0, headEnd);
    const size_t space = head.find(' ');
    exchange.method = head.substr(0, space);
    exchange.path = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
    size_t length = 0;
    const char* key = "\r\ncontent-length:";
    std::string lower = head;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (const size_t at = lower.find(key); at != std::string::npos) {
      length = std::stoul(head.substr(at + std::strlen(key)));
    }
    exchange.body = data.substr(headEnd + 4);
    while (exchange.body.size() < length) {
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      exchange.body.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  std::function<void(RawExchange&)> handler_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<uint64_t> sent_{0};
  std::thread thread_;
};

// Writes `chunk` as one chunk of a chunked body.
inline bool writeChunk(RawExchange& exchange, std::string_view chunk) {
  char size[32];
  std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
  return exchange.write(size) && exchange.write(chunk) && exchange.write("\r\n");
}

// A gzip member of `mebibytes` MiB of zeros, about a thousand times smaller, made without
// compressing all of it: after a full flush a deflate segment stands alone, so the segment
// for one MiB is repeated, and the trailer is computed for the whole.
class GzipZeros {
 public:
  explicit GzipZeros(uint64_t mebibytes) : segments_(mebibytes) {
    const std::string zeros(kMebibyte, '\0');
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
    head_ = run(stream, zeros, Z_FULL_FLUSH);  // the gzip header and the first segment
    segment_ = run(stream, zeros, Z_FULL_FLUSH);
    tail_ = run(stream, "", Z_FINISH);  // the last block and a trailer for two MiB only
    deflateEnd(&stream);
    uLong crcOfMebibyte = crc32(0, reinterpret_cast<const Bytef*>(zeros.data()), kMebibyte);
    uLong crc = crc32(0, nullptr, 0);
    for (uint64_t i = 0; i < segments_; ++i) crc = crc32_combine(crc, crcOfMebibyte, kMebibyte);
    const uint32_t values[2] = {static_cast<uint32_t>(crc),
                                static_cast<uint32_t>(segments_ * kMebibyte)};
    for (int v = 0; v < 2; ++v) {
      for (int i = 0; i < 4; ++i) {
        tail_[tail_.size() - 8 + 4 * v + i] = static_cast<char>(values[v] >> (8 * i));
      }
    }
  }
  uint64_t encodedSize() const {
    return head_.size() + segment_.size() * (segments_ - 1) + tail_.size();
  }
  // Writes the member through `write`, stopping when it answers false.
  bool writeTo(const std::function<bool(std::string_view)>& write) const {
    if (!write(head_)) return false;
    for (uint64_t i = 1; i < segments_; ++i) {
      if (!write(segment_)) return false;
    }
    return write(tail_);
  }
  // The whole member, for small ones.
  std::string bytes() const {
    std::string all;
    writeTo([&](std::string_view piece) {
      all.append(piece);
      return true;
    });
    return all;
  }

 private:
  static constexpr size_t kMebibyte = size_t{1} << 20;
  static std::string run(z_stream& stream, const std::string& input, int flush) {
    std::string out(input.size() / 64 + 1024, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, flush);
    out.resize(out.size() - stream.avail_out);
    return out;
  }

  uint64_t segments_;
  std::string head_, segment_, tail_;
};

// Answers 200 with a chunked body: `mebibytes` MiB of zeros, plain or gzip-encoded, sent until
// the client leaves.
inline void streamZeros(RawExchange& exchange, uint64_t mebibytes, bool gzip) {
  std::string head =
      "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
      "Transfer-Encoding: chunked\r\nConnection: close\r\n";
  if (gzip) head += "Content-Encoding: gzip\r\n";
  if (!exchange.write(head + "\r\n")) return;
  const auto chunk = [&](std::string_view piece) { return writeChunk(exchange, piece); };
  bool open = true;
  if (gzip) {
    open = GzipZeros(mebibytes).writeTo(chunk);
  } else {
    const std::string zeros(size_t{1} << 20, '\0');
    for (uint64_t i = 0; open && i < mebibytes; ++i) open = chunk(zeros);
  }
  if (open) exchange.write("0\r\n\r\n");
}

}  // namespace orvane::testing
