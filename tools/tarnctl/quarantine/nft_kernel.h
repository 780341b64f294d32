#pragma once

// The kernel's nf_tables, through libnftables. It is left out of a build without that library.
//
// Threads: one at a time.

#include <memory>

#include "tarnctl/quarantine/nft_engine.h"

struct nft_ctx;

namespace tarnctl {

class NftKernel final : public NftEngine {
  public:
    NftKernel();
    ~NftKernel() override;

    [[nodiscard]] NftResult Change(const std::string& script) override;
    [[nodiscard]] NftResult Query(const std::string& script) override;
    [[nodiscard]] uint32_t Generation() override;

  private:
    [[nodiscard]] NftResult Run(const std::string& script, unsigned outputFlags);

    nft_ctx* const m_context;  // owned; null where there is no memory for it
    const int m_socket;        // owned; asks for the generation; -1 where it cannot be had
};

// The one engine of this build; an empty function where the build has none.
[[nodiscard]] NftEngineMaker KernelEngineMaker();

}  // namespace tarnctl
