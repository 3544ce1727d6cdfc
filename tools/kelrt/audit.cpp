// A context at a time: what the library refuses, what it would not notice, and what becomes of the memories
// meanwhile.
#include "audit.h"

#include <algorithm>
#include <cstring>

#include "check.h"
#include "oddities.h"
#include "refusals.h"
#include "status.h"
#include "warnings.h"

namespace tool {
namespace {

class Audit {
  public:
    Audit(Job& job, const IndexOf& index) : job_(job), index_(index), uses_(job.memories.size()) {
        for (const uint32_t id : job.outputs)
            uses_[id].is_output = true;
    }

    std::vector<Finding> findings() {
        for (size_t i = 0; i < job_.contexts.size(); ++i) {
            current_ = i;
            look_at(job_.contexts[i]);
        }
        for (const Finding& warning : warnings_of(job_))
            findings_.push_back(warning);
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](const Finding& a, const Finding& b) { return a.context < b.context; });
        look_at_memories();
        return std::move(findings_);
    }

  private:
    struct Uses {
        bool named = false, published = false, is_output = false;
    };

    void add(bool is_error, const std::string& argument, std::string what, uint32_t status = 0) {
        findings_.push_back({is_error, current_, argument, std::move(what), status});
    }

    void add(const Refusal& refusal) {
        add(true, refusal.argument,
            "the library refuses it: " + status_text(refusal.status) + ", \"" + refusal.message + "\"",
            refusal.status);
    }

    void look_at(const Context& context) {
        for (const KelRtContextArg& argument : context.args) {
            if ((argument.type & 0xFF) == KEL_RT_ARG_MEM && argument.value < uses_.size())
                uses_[argument.value].named = true;
        }
        if (const auto refusal = refused_at_entry(context)) {
            add(*refusal);
            return;
        }
        const Operator& op = *operator_of(context);
        std::vector<KelRtContextArg> own(context.own().begin(),
                                         context.own().begin() + static_cast<ptrdiff_t>(op.arguments.size()));
        for (KelRtContextArg& argument : own)
            argument.type &= 0xFF;
        if (!know_memories(op, own))
            return;
        const Index index = [&](const KelRtContextArg& argument) { return index_(current_, argument); };
        const auto refusal = refused_by_kernel(op, own, index);
        if (refusal)
            add(*refusal);
        look_at_operands(op, own, index);
        if (!refusal)
            note_uses(op, own);
    }

    bool know_memories(const Operator& op, std::span<const KelRtContextArg> own) {
        bool known = true;
        for (size_t i = 0; i < own.size(); ++i) {
            const uint32_t id = own[i].value;
            if (!op.arguments[i].is_memory() || id == KEL_RT_NO_MEMORY_ID)
                continue;
            if (id >= job_.memories.size() || job_.memories[id].size_status != NNA_STATUS_OK) {
                known = false;
                const bool is_fetched = op.fetches_outputs || op.arguments[i].use != Use::Output;
                add(true, op.arguments[i].name, "the platform knows no memory " + std::to_string(id),
                    is_fetched && !moves_sram(id_of(op)) ? uint32_t{NNA_STATUS_MEMORY_SYNC_FAILED} : 0);
            }
        }
        if (moves_sram(id_of(op)) && !job_.sram && !job_.is_recorded) {
            known = false;
            add(true, "", "there is no SRAM in the job");
        }
        return known;
    }

    void look_at_operands(const Operator& op, std::span<const KelRtContextArg> own, const Index& index) {
        const Complain error = [&](size_t i, const std::string& what) {
            add(true, op.arguments[i].name, what);
        };
        if (check_extents(op, own, job_, error))
            check_lookups(op, own, job_, error, index);
        check_overlaps(op, own, job_, error);
        check_oddities(op, own, job_, [&](bool is_error, size_t i, const std::string& what) {
            add(is_error, op.arguments[i].name, what);
        });
        const std::vector<uint32_t> values = values_of(own);
        for (size_t i = 0; i < own.size(); ++i) {
            if (op.arguments[i].use != Use::Input || own[i].value == KEL_RT_NO_MEMORY_ID ||
                op.arguments[i].read_range(values).length() == 0)
                continue;
            Memory& memory = job_.memories[own[i].value];
            if (!memory.is_given && !memory.written)
                add(false, op.arguments[i].name,
                    "memory " + memory.name + " has no values, and no context before has written it");
            memory.is_given = true;  // saying so once is enough
        }
    }

    void note_uses(const Operator& op, std::span<const KelRtContextArg> own) {
        note_writes(op, own, job_);
        for (size_t i = 0; i < own.size(); ++i) {
            if (op.arguments[i].is_published() && own[i].value != KEL_RT_NO_MEMORY_ID)
                uses_[own[i].value].published |= job_.memories[own[i].value].on_cpu || !moves_sram(id_of(op));
        }
    }

    void look_at_memories() {
        current_ = Finding::kWholeJob;
        for (size_t id = 0; id < job_.memories.size(); ++id) {
            const std::string memory = "memory " + job_.memories[id].name;
            if (uses_[id].is_output && !uses_[id].published)
                add(false, "", memory + " is an output, and no context publishes it");
            else if (!uses_[id].named)
                add(false, "", memory + " is named by no context");
        }
    }

    Job& job_;
    const IndexOf& index_;
    std::vector<Uses> uses_;  // by memory id
    std::vector<Finding> findings_;
    size_t current_ = 0;
};

}  // namespace

std::vector<Finding> audit(Job& job, const IndexOf& index) {
    return Audit(job, index).findings();
}

}  // namespace tool
