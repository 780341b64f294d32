#include "support/source_dir.h"

std::string SourceDir() {
    return TARN_SOURCE_DIR;
}
