#include "service.h"

#include <cstdio>

#include "programs/support/policy_apply.h"
#include "programs/support/program.h"
#include "zel/ipc.h"

namespace zelaclmgrd {
namespace {

// Expressions that nobody refers to any more are looked for this often.
constexpr int cleanUpSeconds = 5;

bool report(const std::string &file, const std::vector<zel::programs::ConfigProblem> &problems) {
    for (const auto &problem : problems)
        fprintf(stderr, "%s:%u:%u: %s\n", file.c_str(), problem.line, problem.column, problem.text.c_str());
    return problems.empty();
}

bool apply(zelAclMgr *manager, const zel::programs::PolicyConfig &config) {
    const auto applied = zel::programs::applyPolicyConfig(manager, config);
    for (const std::string &failure : applied.failures) fprintf(stderr, "zelaclmgrd: %s\n", failure.c_str());
    printf("zelaclmgrd: %u lists created, %u changed, %u removed, %u as before\n", applied.created, applied.changed,
           applied.removed, applied.kept);
    return applied.failures.empty();
}

}  // namespace

bool loadFile(const std::string &file, zelAclMgr *manager) {
    zel::programs::PolicyConfig config;
    if (!report(file, zel::programs::readPolicyFile(file, config))) return false;
    return manager == nullptr || apply(manager, config);
}

Service::Service(std::uint32_t key, const Options &options)
    : key_(key), options_(options), manager_(zelAclMgrOpen(ZEL_ACLMGR_PRIMARY)) {
    if (manager_ == nullptr)
        perror("zelaclmgrd: the policy tables cannot be had");
    else
        isLoaded_ = loadFile(options_.file, manager_);
}

Service::~Service() {
    if (manager_ != nullptr) zelAclMgrClose(manager_);
}

int Service::run() {
    if (!isLoaded_) return 1;
    std::uint8_t message[ZEL_IPC_HDR_LEN];
    while (!zel::programs::isStopping()) {
        zelIpcRecv(key_ | ZEL_IPC_QUEUE_REQUEST, message, sizeof message, cleanUpSeconds, 0, 0);
        if (zel::programs::wasHungUp() && !loadFile(options_.file, manager_))
            fprintf(stderr, "zelaclmgrd: what could not be applied stays as it was\n");
        aclRegexPeriodicCacheCleanup();
    }
    return 0;
}

}  // namespace zelaclmgrd
