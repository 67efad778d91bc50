// kestrel-inspect: what the add-on would see in a DLL file.
//   kestrel-inspect [--json] exports FILE [NAME...]
//   kestrel-inspect [--json] version FILE
//   kestrel-inspect [--json] traps FILE
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "libinfra/platform/Platform.h"
#include "logging/LogFunction.h"
#include "tools/kestrel-inspect/Commands.h"
#include "tools/kestrel-inspect/MappedImage.h"

namespace {

int Usage() {
  std::cerr << "usage: kestrel-inspect [--json] exports FILE [NAME...]\n"
               "       kestrel-inspect [--json] version FILE\n"
               "       kestrel-inspect [--json] traps FILE\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  bool json = false;
  if (!args.empty() && args[0] == "--json") {
    json = true;
    args.erase(args.begin());
  }
  if (args.size() < 2 || (args[0] != "exports" && args.size() != 2)) {
    return Usage();
  }
  const std::string& command = args[0];
  if (command != "exports" && command != "version" && command != "traps") {
    return Usage();
  }
  // The reader's warnings, as the host's log would show them.
  tessel::logging::logFunction = [](tessel::LogLevel level, std::string_view file, unsigned line,
                                    std::wstring_view message) {
    std::cerr << "log " << static_cast<int>(level) << " " << file << ":" << line << " "
              << platform::Utf8FromWide(message) << "\n";
  };
  try {
    const auto image = inspect::MappedImage::Map(args[1]);
    nlohmann::json result;
    if (command == "exports") {
      result = inspect::Exports(image->base(), std::vector<std::string>(args.begin() + 2, args.end()));
    } else if (command == "version") {
      result = inspect::Version(image->base());
    } else {
      result = inspect::Traps(image->base(), args[1]);
    }
    std::cout << (json ? result.dump() + "\n" : inspect::AsText(command, result));
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "kestrel-inspect: " << args[1] << ": " << error.what() << "\n";
    return 1;
  }
}
