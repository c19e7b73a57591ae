// The management classes offered to the node.
#include <cstring>

#include "session/NameQuery.h"
#include "session/TsmSession.h"

using namespace connector;

static_assert(sizeof(qryRespMCData) == 290, "the API's headers have another layout than its answers");

int TsmSession::GetMgmtClasses(char**& list) {
    EndGetMgmtClasses();
    char all[] = "";
    qryMCData query = {};
    query.stVersion = qryMCDataVersion;
    query.mcName = all;
    query.mcDetail = bFalse;
    qryRespMCData response = {};
    response.stVersion = 1;
    const auto take = [](const qryRespMCData& found, std::vector<std::string>& names) {
        names.emplace_back(found.mcName, strnlen(found.mcName, sizeof found.mcName));
    };
    return ListNames(handle, {qtMC, &query, 0}, response, take, {mgmtClassList, mgmtClassCount}, list);
}

int TsmSession::EndGetMgmtClasses() {
    ReleaseNames({mgmtClassList, mgmtClassCount});
    return 0;
}
