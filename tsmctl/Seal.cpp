#include "Seal.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <cstdio>
#include <new>

namespace tsmctl {
namespace {

// libcrypto fails in these calls for want of memory only.
void Require(bool done) {
    if (!done) throw std::bad_alloc();
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    Require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::Add(const void* data, size_t length) {
    Require(EVP_DigestUpdate(context_.get(), data, length) == 1);
}

std::string Sha256::Hex() const {
    unsigned char digest[32];
    const Sha256 copy;
    Require(EVP_MD_CTX_copy_ex(copy.context_.get(), context_.get()) == 1 &&
            EVP_DigestFinal_ex(copy.context_.get(), digest, nullptr) == 1);
    std::string hex;
    for (const unsigned char byte : digest) hex += fmt::format("{:02x}", byte);
    return hex;
}

bool LooksLikeSeal(const std::string& bytes) {
    char end = 0;
    const int fields = std::sscanf(bytes.c_str(), "tsmctl2 %*19[0-9] %*10[0-9] %*64[0-9a-f] %*64[0-9a-f]%c", &end);
    return bytes.size() == sealLength && fields == 1 && end == '\n';
}

std::string Seal(const std::string& info, const std::string& header, long long size, const std::string& sha256) {
    const std::string line = fmt::format("tsmctl2 {:019} {:010} {} ", size, header.size(), sha256);
    Sha256 whole;
    for (const std::string& part : {info + "\n", header, line}) whole.Add(part.data(), part.size());
    return line + whole.Hex() + "\n";
}

}  // namespace tsmctl
