#include "tarnctl/rings/ring_state.h"

namespace tarnctl {
namespace {

// The write index first: where it is wrong, nothing that waits can be told from old bytes.
RingFault IndexFault(const RingLook& look) {
    if (look.writeWord >= look.size) {
        return RingFault::kWriteIndexOutside;
    }
    if (look.writeWord % kShmRingWordSize != 0) {
        return RingFault::kWriteIndexOffGrid;
    }
    if (look.readWord >= look.size) {
        return RingFault::kReadIndexOutside;
    }
    return look.readWord % kShmRingWordSize != 0 ? RingFault::kReadIndexOffGrid : RingFault::kNone;
}

bool IsOfWriteIndex(RingFault fault) {
    return fault == RingFault::kWriteIndexOffGrid || fault == RingFault::kWriteIndexOutside;
}

bool IsOfReadIndex(RingFault fault) {
    return fault == RingFault::kReadIndexOffGrid || fault == RingFault::kReadIndexOutside;
}

}  // namespace

RingState LookAtState(RingWalker& walker) {
    RingState state;
    walker.Restart();
    state.look = walker.Look();
    state.at = state.look.readIndex;
    state.length = state.look.firstLength;
    state.fault = IndexFault(state.look);
    if (state.fault != RingFault::kNone) {
        return state;
    }
    while (true) {
        const WalkResult result = walker.Next();
        switch (result) {
            case WalkResult::kMessage:
                ++state.messages;
                break;
            case WalkResult::kHole:
            case WalkResult::kTooLong:
                state.look = walker.Look();
                state.at = walker.At();
                state.length = walker.LengthWord();
                state.fault = result == WalkResult::kHole      ? RingFault::kNoLength
                              : state.length > state.look.size ? RingFault::kLengthBeyondRing
                                                               : RingFault::kLengthPastWriteEnd;
                return state;
            default:
                // The end; or a reader that takes what is looked at, so that the ring moves.
                state.look = walker.Look();
                state.at = state.look.readIndex;
                state.length = state.look.firstLength;
                return state;
        }
    }
}

bool IsSameFault(const RingState& first, const RingState& second) {
    const bool isSameIndex = IsOfWriteIndex(first.fault)
                                 ? first.look.writeWord == second.look.writeWord
                                 : first.look.readWord == second.look.readWord;
    return first.fault != RingFault::kNone && first.fault == second.fault && isSameIndex &&
           first.at == second.at;
}

std::string FaultName(RingFault fault) {
    switch (fault) {
        case RingFault::kReadIndexOffGrid:
            return "read-index-off-grid";
        case RingFault::kReadIndexOutside:
            return "read-index-outside";
        case RingFault::kWriteIndexOffGrid:
            return "write-index-off-grid";
        case RingFault::kWriteIndexOutside:
            return "write-index-outside";
        case RingFault::kNoLength:
            return "no-length";
        case RingFault::kLengthBeyondRing:
            return "length-beyond-ring";
        case RingFault::kLengthPastWriteEnd:
            return "length-past-write-index";
        default:
            return "none";
    }
}

std::string FaultText(const RingState& state) {
    const RingLook& look = state.look;
    const std::string place = " at offset " + std::to_string(state.at);
    switch (state.fault) {
        case RingFault::kReadIndexOffGrid:
            return "the read index is " + std::to_string(look.readWord) + ", no multiple of 4";
        case RingFault::kReadIndexOutside:
            return "the read index is " + std::to_string(look.readWord) + " in a ring of " +
                   std::to_string(look.size) + " bytes";
        case RingFault::kWriteIndexOffGrid:
            return "the write index is " + std::to_string(look.writeWord) + ", no multiple of 4";
        case RingFault::kWriteIndexOutside:
            return "the write index is " + std::to_string(look.writeWord) + " in a ring of " +
                   std::to_string(look.size) + " bytes";
        case RingFault::kNoLength:
            return "the length word" + place + " is 0 and the write index is " +
                   std::to_string(look.writeIndex);
        case RingFault::kLengthBeyondRing:
            return "the length word" + place + " is " + std::to_string(state.length) +
                   " in a ring of " + std::to_string(look.size) + " bytes";
        case RingFault::kLengthPastWriteEnd:
            return "the message" + place + " has " + std::to_string(state.length) +
                   " bytes and reaches past the write index, " + std::to_string(look.writeIndex);
        default:
            return "";
    }
}

std::string FaultMeaning(const RingState& state) {
    if (IsOfReadIndex(state.fault)) {
        return "no side knows where the next message begins; what a reader takes is no message";
    }
    if (IsOfWriteIndex(state.fault)) {
        return "no side knows where the last message ends; tarn mends this index when it starts";
    }
    if (!state.IsStuck()) {
        return "a reader takes what is in front of it and then stops";
    }
    switch (state.fault) {
        case RingFault::kNoLength:
            return "no reader gets past it, and the ring fills up: a reader was killed while it took "
                   "a message, or a message of no bytes was written";
        case RingFault::kLengthBeyondRing:
            return "a reader that meets it drops everything that waits";
        case RingFault::kLengthPastWriteEnd:
            return "a reader that meets it takes bytes that are no message";
        default:
            return "";
    }
}

}  // namespace tarnctl
