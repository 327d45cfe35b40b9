// The same kind of program as tests/consumer/cpp without the SDK: the standard library parts
// any C++ host already links (strings, shared pointers, threads, stdio). What a host adds by
// linking the SDK is measured against it.
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

int main() {
  std::string text = "x";
  auto shared = std::make_shared<int>(1);
  std::thread worker([] {});
  worker.join();
  std::printf("%s %d\n", text.c_str(), *shared);
}
