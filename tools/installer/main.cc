// kerrow-native-messaging-host-install: writes, checks or removes the browsers' host manifests.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string_view>
#include <utility>
#include <vector>

#include "kerrow_version.h"
#include "tools/installer/installer.h"
#include "tools/installer/options.h"

namespace {

constexpr std::string_view programName = "kerrow-native-messaging-host-install";

kerrow::installer::Environment processEnvironment() {
    kerrow::installer::Environment environment;
    const char* const home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
    if (home != nullptr) {
        environment.home = home;
    }
    for (const auto& [name, folder] :
         {std::pair{"XDG_CONFIG_HOME", &environment.configHome},
          std::pair{"CHROME_CONFIG_HOME", &environment.chromeConfigHome}}) {
        const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        if (value != nullptr && value[0] == '/') {
            *folder = value;
        }
    }
    std::error_code error;
    environment.programDirectory =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    return environment;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    const auto parsed = kerrow::installer::parseOptions(arguments);
    if (const auto* error = std::get_if<kerrow::installer::UsageError>(&parsed)) {
        std::cerr << programName << ": " << error->message << "\n"
                  << "Try '" << programName << " --help'.\n";
        return 2;
    }
    const auto& options = std::get<kerrow::installer::Options>(parsed);
    if (options.help) {
        std::cout << kerrow::installer::usageText(programName);
        return 0;
    }
    if (options.version) {
        std::cout << programName << " " << kerrow::projectVersion << "\n";
        return 0;
    }
    return kerrow::installer::run(options, processEnvironment(), std::cout, std::cerr);
}
