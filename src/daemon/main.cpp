#include "daemon/engine.h"
#include "version.h"

namespace {

// Marks by which a binary is identified on disk; nothing reads them at run time.
[[gnu::used]] const char kNameMark[] = "@(#)!QORNAME!tarn!QORNAME!";
[[gnu::used]] const char kVersionMark[] = "@(#)!QORVER!" TARN_VERSION "!QORVER!";
[[gnu::used]] const char kSpecialMark[] = "@(#)!QORSPECIAL!!QORSPECIAL!";

}  // namespace

int main(int argc, char** argv) {
    const int status = TarnEngine::Instance()->Main(argc, argv);
    TarnEngine::ReleaseInstance();
    return status;
}
