#include "programs/support/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace zel::programs {
namespace {

constexpr int firstWithoutLetter = 256;

}  // namespace

bool readOptions(int argc, char **argv, const char *help, const std::vector<ProgramOption> &options,
                 OtherWords otherWords) {
    std::string letters = otherWords == OtherWords::behind ? "+h" : "h";
    std::vector<option> names{{"help", no_argument, nullptr, 'h'}};
    std::vector<int> codes;
    for (const ProgramOption &each : options) {
        codes.push_back(each.letter ? each.letter : firstWithoutLetter + static_cast<int>(codes.size()));
        if (each.letter) letters.append(1, each.letter).append(each.action.hasArgument ? ":" : "");
        names.push_back({each.name, each.action.hasArgument, nullptr, codes.back()});
    }
    names.push_back({});
    for (int code; (code = getopt_long(argc, argv, letters.c_str(), names.data(), nullptr)) != -1;) {
        if (code == 'h') {
            fputs(help, stdout);
            exit(0);
        }
        std::size_t i = 0;
        while (i < codes.size() && codes[i] != code) ++i;
        if (i == codes.size() || !options[i].action.take(optarg)) return false;
    }
    return true;
}

}  // namespace zel::programs
