// How an object ends: with the SHA-256 of its content, by which it can be checked without its source.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace tsmctl {

class Sha256 {
public:
    // Throws std::bad_alloc.
    Sha256();
    void Add(const void* data, size_t length);
    // Of what was added so far, in lower-case hexadecimal digits.
    std::string Hex() const;

private:
    std::shared_ptr<EVP_MD_CTX> context_;
};

constexpr size_t sealLength = 169;

bool LooksLikeSeal(const std::string& bytes);
// The last bytes of an object with this information text and header, and with content of this size and SHA-256.
std::string Seal(const std::string& info, const std::string& header, long long size, const std::string& sha256);

}  // namespace tsmctl
