// The admin API's reading of what a client sends: the sign-in body and the "Authorization" header.
// The first byte chooses which one gets the rest of the input.
// Checked: a body that is accepted gives back exactly the strings it holds (a body built from them is
// accepted with the same answer); a refused one always says why; a token never has blanks around it
// and is part of the header.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "AdminHttpApi.h"

using namespace ostv::server;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1) {
        const std::string token = bearerToken(input);
        if (token.empty()) return 0;
        if (input.find(token) == std::string_view::npos) std::abort();
        for (char edge : {token.front(), token.back()})
            if (edge == ' ' || edge == '\t') std::abort();
        return 0;
    }
    std::string why;
    const auto login = parseLoginBody(input, &why);
    if (!login) {
        if (why.empty()) std::abort();
        return 0;
    }
    const std::string again = nlohmann::json{{"username", login->username}, {"password", login->password}}.dump();
    const auto back = parseLoginBody(again, &why);
    if (!back || back->username != login->username || back->password != login->password) std::abort();
    return 0;
}
