// Sign-on, sign-off and what a session owns.
#include "session/TsmSession.h"

#include <cstdlib>
#include <cstring>

#include "session/Result.h"
#include "util/Text.h"

using namespace connector;

namespace {

// Leaves no copy in memory that is given back. explicit_bzero is not optimised away.
void WipeAndFree(char*& text) {
    if (text) explicit_bzero(text, std::strlen(text));
    delete[] text;
    text = nullptr;
}

}  // namespace

TsmSession::TsmSession() = default;

TsmSession::~TsmSession() {
    _CleanUp();
    EndGetBackupInfo();
    EndGetFileSpaces();
    EndGetMgmtClasses();
}

void TsmSession::_Init(char* node, char* owner, char* secret, char* optionText, char* extraText, char* userSecret,
                       char* delimiter) {
    char backslash[] = "\\";
    const struct {
        char*& copy;
        const char* text;
    } texts[] = {{nodeName, node},
                 {ownerName, owner},
                 {password, secret},
                 {options, optionText},
                 {extraString, extraText},
                 {userPassword, userSecret},
                 {dirDelimiter, delimiter && delimiter[0] != '\0' ? delimiter : backslash}};
    for (const auto& [copy, text] : texts) {
        copy = NewCopy(text);
        if (text && !copy) return _CleanUp();
    }
}

int TsmSession::OpenSession(char* node, char* owner, char* secret, char* optionText, char* extraText, char* userSecret,
                            char* delimiter, char* applicationType, dsmApiVersionEx apiVersion) {
    _Init(node, owner, secret, optionText, extraText, userSecret, delimiter);
    if (!dirDelimiter) return -DSM_RC_NO_MEMORY;
    char defaultType[] = "KARVELON-CLIENT";
    dsmInitExIn_t in = {};
    in.stVersion = 5;
    in.apiVersionExP = &apiVersion;
    in.clientNodeNameP = nodeName;
    in.clientOwnerNameP = ownerName;
    in.clientPasswordP = password;
    in.userNameP = nodeName;
    in.userPasswordP = userPassword;
    in.applicationTypeP = applicationType ? applicationType : defaultType;
    in.options = options;
    in.dirDelimiter = dirDelimiter[0];
    dsmInitExOut_t out = {};
    const dsInt16_t rc = dsmInitEx(&handle, &in, &out);
    return rc == 0 ? static_cast<int>(handle) : Negated(rc);
}

int TsmSession::CloseSession() {
    if (handle == 0) return 0;
    const dsInt16_t rc = dsmTerminate(handle);
    if (rc != 0) _Log(const_cast<char*>("CloseSession %d error"), rc);
    handle = 0;
    return rc;
}

void TsmSession::_CleanUp() {
    // The options and the extra text can hold passwords too.
    for (char** text :
         {&nodeName, &ownerName, &password, &options, &extraString, &userPassword, &fileSpaceName, &dirDelimiter}) {
        WipeAndFree(*text);
    }
}

char* TsmSession::_RcApiOut(unsigned int apiHandle, short rc) {
    auto* text = static_cast<char*>(std::malloc(DSM_MAX_RC_MSG_LENGTH + 1));
    if (!text) return nullptr;
    text[0] = '\0';  // for an API that knows no text
    dsmRCMsg(apiHandle, rc, text);
    return text;
}

void TsmSession::_Log(char* /*format*/, int /*code*/) {}
