// tavipc-keymaker - runs while the library is built, which needs the public half of the allow-list's key:
//   tavipc-keymaker pair PRIVATE PUBLIC   makes what is missing of a development pair
//   tavipc-keymaker header PUBLIC HEADER  writes the C++ header that compiles the key into the library
#include <iostream>

#include "agent/agent.h"

using namespace tavctl;

namespace {

void write_header(const std::string &key_path, const std::string &header_path) {
    const Key key = load_public_key(key_path);
    write_file(header_path, "// Generated: the key that verifies the allow-list.\n#pragma once\n\n"
                            "namespace tavipc {\n\ninline constexpr char kAllowlistKey[] = R\"(" +
                                public_pem(key.get()) + ")\";\n\n} // namespace tavipc\n");
}

} // namespace

int main(int argc, char **argv) {
    const std::span<char *const> words(argv, static_cast<size_t>(argc));
    try {
        if (words.size() == 4 && std::string_view(words[1]) == "pair") {
            make_key_pair(words[2], words[3], true);
        } else if (words.size() == 4 && std::string_view(words[1]) == "header") {
            write_header(words[2], words[3]);
        } else {
            std::cerr << "usage: tavipc-keymaker pair PRIVATE PUBLIC | header PUBLIC HEADER\n";
            return kMisuse;
        }
        return kSuccess;
    } catch (const std::exception &error) {
        std::cerr << "tavipc-keymaker: " << error.what() << '\n';
        return kFailure;
    }
}
