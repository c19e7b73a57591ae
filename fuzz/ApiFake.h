// A client API that answers whatever the fuzzer wants: codes, reasons, records, counts. It formats nothing, so that
// many thousand inputs a second go through.
#pragma once

#include <vector>

#include "fuzz/Input.h"
#include "util/DsmApi.h"

namespace fuzz {

// One input's API, and what it did in the exported call that is under way.
struct ApiFake {
    explicit ApiFake(Input& bytes);
    ~ApiFake();

    // To be called before each exported call.
    void Begin() {
        codes.clear();
        given.clear();
        passes = 0;
        gaveUp = false;
        commitRc = 0;
        commitReason = 0;
    }
    // Whether a negative result is the code or the reason of an answer.
    bool Gave(long long result) const { return std::find(codes.begin(), codes.end(), -result) != codes.end(); }

    dsInt16_t Code();
    dsInt16_t Next(DataBlk& block);

    struct Given {
        long long size;
        dsUint8_t type;
    };

    Input& input;
    std::vector<int> codes;
    std::vector<Given> given;  // the backup answers
    dsmQueryType query = qtBackup;
    int answersLeft = 0;  // of the query
    int budget = 150;     // answers of the whole input
    int passes = 0;       // calls of dsmSendData
    bool gaveUp = false;  // DSM_RC_WILL_ABORT was answered
    dsInt16_t commitRc = 0;
    dsUint16_t commitReason = 0;
    const unsigned char* sent = nullptr;  // what dsmSendData has to bring, and how much of it is to come
    std::size_t toCome = 0;
};

}  // namespace fuzz
