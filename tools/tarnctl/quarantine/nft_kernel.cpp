#include "tarnctl/quarantine/nft_kernel.h"

#include <arpa/inet.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace tarnctl {
namespace {

constexpr uint16_t kGetGeneration = NFNL_SUBSYS_NFTABLES << 8U | NFT_MSG_GETGEN;
constexpr uint16_t kNewGeneration = NFNL_SUBSYS_NFTABLES << 8U | NFT_MSG_NEWGEN;

struct GenerationRequest {
    nlmsghdr header;
    nfgenmsg family;
};

// The number in an answer of the kernel, or 0.
uint32_t GenerationIn(const char* bytes, size_t length) {
    nlmsghdr header = {};
    size_t place = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(nfgenmsg));
    if (length < place) {
        return 0;
    }
    std::memcpy(&header, bytes, sizeof(header));
    if (header.nlmsg_type != kNewGeneration) {
        return 0;
    }
    nlattr attribute = {};
    uint32_t number = 0;
    while (place + NLA_HDRLEN + sizeof(number) <= length) {
        std::memcpy(&attribute, bytes + place, sizeof(attribute));
        if (attribute.nla_type == NFTA_GEN_ID) {
            std::memcpy(&number, bytes + place + NLA_HDRLEN, sizeof(number));
            return ntohl(number);
        }
        if (attribute.nla_len < NLA_HDRLEN) {
            return 0;
        }
        place += NLA_ALIGN(attribute.nla_len);
    }
    return 0;
}

}  // namespace

NftKernel::NftKernel()
    : m_context(nft_ctx_new(NFT_CTX_DEFAULT)),
      m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)) {
    if (m_context != nullptr) {
        nft_ctx_buffer_output(m_context);
        nft_ctx_buffer_error(m_context);
    }
}

NftKernel::~NftKernel() {
    if (m_context != nullptr) {
        nft_ctx_free(m_context);
    }
    if (m_socket != -1) {
        close(m_socket);
    }
}

NftResult NftKernel::Change(const std::string& script) {
    return Run(script, 0);
}

NftResult NftKernel::Query(const std::string& script) {
    return Run(script, NFT_CTX_OUTPUT_JSON | NFT_CTX_OUTPUT_NUMERIC_ALL);
}

NftResult NftKernel::Run(const std::string& script, unsigned outputFlags) {
    if (m_context == nullptr) {
        return {.isDone = false, .text = "no memory for libnftables"};
    }
    nft_ctx_output_set_flags(m_context, outputFlags);
    const bool isDone = nft_run_cmd_from_buffer(m_context, script.c_str()) == 0;
    // Both buffers begin again only after they are read.
    const std::string output = nft_ctx_get_output_buffer(m_context);
    const std::string errors = nft_ctx_get_error_buffer(m_context);
    return {.isDone = isDone, .text = isDone ? output : errors};
}

uint32_t NftKernel::Generation() {
    GenerationRequest request = {};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = kGetGeneration;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.family.nfgen_family = AF_UNSPEC;
    request.family.version = NFNETLINK_V0;
    if (send(m_socket, &request, sizeof(request), 0) != static_cast<ssize_t>(sizeof(request))) {
        return 0;
    }
    std::array<char, 1024> answer = {};
    const ssize_t length = recv(m_socket, answer.data(), answer.size(), 0);
    return length < 0 ? 0 : GenerationIn(answer.data(), static_cast<size_t>(length));
}

NftEngineMaker KernelEngineMaker() {
    return [] { return std::make_unique<NftKernel>(); };
}

}  // namespace tarnctl
