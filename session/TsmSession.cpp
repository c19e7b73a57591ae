// Sign-on, sign-off and what a session owns.
#include "session/TsmSession.h"

#include <cstdlib>
#include <cstring>

#include "session/NameList.h"
#include "session/Result.h"

namespace {

char* CopyOrNull(const char* text) {
    return text == nullptr ? nullptr : CopyText(text, std::strlen(text));
}

// Leaves no copy in memory that is given back. explicit_bzero is not optimised away.
void WipeAndFree(char*& text) {
    if (text != nullptr) explicit_bzero(text, std::strlen(text));
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

void TsmSession::_Init(char* nodeNameArg, char* ownerNameArg, char* passwordArg, char* optionsArg, char* extraStringArg,
                       char* userPasswordArg, char* dirDelimiterArg) {
    nodeName = CopyOrNull(nodeNameArg);
    ownerName = CopyOrNull(ownerNameArg);
    password = CopyOrNull(passwordArg);
    options = CopyOrNull(optionsArg);
    extraString = CopyOrNull(extraStringArg);
    userPassword = CopyOrNull(userPasswordArg);
    dirDelimiter = CopyOrNull(dirDelimiterArg != nullptr && dirDelimiterArg[0] != '\0' ? dirDelimiterArg : "\\");
}

int TsmSession::OpenSession(char* nodeNameArg, char* ownerNameArg, char* passwordArg, char* optionsArg,
                            char* extraStringArg, char* userPasswordArg, char* dirDelimiterArg, char* applicationType,
                            dsmApiVersionEx apiVersion) {
    return NoThrow([&] {
        _Init(nodeNameArg, ownerNameArg, passwordArg, optionsArg, extraStringArg, userPasswordArg, dirDelimiterArg);
        char defaultType[] = "KARVELON-CLIENT";
        dsmInitExIn_t in = {};
        in.stVersion = 5;
        in.apiVersionExP = &apiVersion;
        in.clientNodeNameP = nodeName;
        in.clientOwnerNameP = ownerName;
        in.clientPasswordP = password;
        in.userNameP = nodeName;
        in.userPasswordP = userPassword;
        in.applicationTypeP = applicationType != nullptr ? applicationType : defaultType;
        in.options = options;
        in.dirDelimiter = dirDelimiter[0];
        dsmInitExOut_t out = {};
        const dsInt16_t rc = dsmInitEx(&handle, &in, &out);
        return rc == 0 ? static_cast<int>(handle) : Negated(rc);
    });
}

int TsmSession::CloseSession() {
    if (handle == 0) return 0;
    const dsInt16_t rc = dsmTerminate(handle);
    if (rc != 0) _Log(const_cast<char*>("CloseSession %d error"), rc);
    handle = 0;
    return rc;
}

void TsmSession::_CleanUp() {
    // Passwords can stand in the options and the extra text too.
    for (char** text :
         {&nodeName, &ownerName, &password, &options, &extraString, &userPassword, &fileSpaceName, &dirDelimiter}) {
        WipeAndFree(*text);
    }
}

char* TsmSession::_RcApiOut(unsigned int apiHandle, short rc) {
    auto* text = static_cast<char*>(std::malloc(DSM_MAX_RC_MSG_LENGTH + 1));
    if (text == nullptr) return nullptr;
    text[0] = '\0';  // for an API that knows no text
    dsmRCMsg(apiHandle, rc, text);
    return text;
}

void TsmSession::_Log(char* /*format*/, int /*code*/) {}
