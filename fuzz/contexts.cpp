// Contexts against the entry point. The words are any words, or, of every operator, arguments of the right
// types; what is accepted gets memories exactly as large as the catalogue says. What is refused writes
// nothing and asks the platform for nothing; what runs writes where the catalogue says, fetches and publishes
// whole memories and only those that it must, and gives the same bits again with CPU buffers in the place of
// accelerator memory and the other way round.
#include <algorithm>
#include <cstring>

#include "check.h"
#include "fuzz.h"
#include "machine.h"
#include "support/contexts.h"

namespace {

using fuzz::must;
using tool::kFirstArgument;
using tool::Range;

constexpr size_t kMaxRecords = 17, kMemories = 7;
// Of one operand; and of the rows of SRAM, whose moves are calls.
constexpr uint64_t kMaxBytes = 1 << 15, kMaxRows = 256;

// Where the platform does as it is asked: the statuses of what has passed the library's own check.
bool is_documented(uint32_t status) {
    constexpr uint32_t kStatuses[] = {NNA_STATUS_OK, NNA_STATUS_FAILED, NNA_STATUS_NULL_POINTER,
                                      NNA_STATUS_UNSUPPORTED, NNA_STATUS_INVALID_ARGUMENT};
    return std::find(std::begin(kStatuses), std::end(kStatuses), status) != std::end(kStatuses);
}

// The first byte of an input.
enum Flag : uint8_t {
    kAnyWords = 1,     // else the right types, of the operator that the next byte says
    kFloats = 2,       // operands of sensible floats, else of any bits
    kDebug = 4,        // with every line of the log
    kNullContext = 8,  // of any words
};

tool::Context read_context(fuzz::Input& input, uint8_t flags) {
    tool::Context context;
    context.args.resize(kMaxRecords);
    if (!(flags & kAnyWords)) {
        const tool::Operator& op = tool::kOperators[input.byte() % KEL_RT_NUM_OPS];
        context =
            tool::make_context(op.name, tool::id_of(op), std::vector<KelRtContextArg>(op.arguments.size()));
        for (size_t i = kFirstArgument; i < context.args.size(); ++i) {
            // Of memories a byte says which (place), and one where they begin.
            const bool is_memory = op.at(i).is_memory();
            const uint32_t value = is_memory ? input.byte() : input.word();
            context.args[i] = {op.at(i).type, is_memory ? input.byte() : 0u, value};
        }
        return context;
    }
    context.null = flags & kNullContext;
    context.target = input.byte() & 0x80 ? input.word() : KEL_RT_TARGET_CPU;
    context.num_args = input.byte() & 0x80 ? static_cast<int32_t>(input.word()) : int32_t{kMaxRecords};
    for (KelRtContextArg& arg : context.args)
        arg = {input.word(), input.word(), input.word()};
    return context;
}

// ---- what the library refuses ----

// How many records the library reads until it refuses them.
size_t read_until_refused(const tool::Context& context) {
    if (context.null || context.target != KEL_RT_TARGET_CPU || context.num_args <= 2)
        return 0;
    const auto has_type = [&](size_t i, KelRtArgType type) { return (context.args[i].type & 0xFF) == type; };
    if (!has_type(0, KEL_RT_ARG_VAL))
        return 1;
    const uint32_t id = context.args[1].value & 0xFF;
    if (!has_type(1, KEL_RT_ARG_VAL) || id >= KEL_RT_NUM_OPS ||
        context.args[0].value != tool::kOperators[id].arguments.size())
        return kFirstArgument;
    size_t i = kFirstArgument;
    while (has_type(i, tool::kOperators[id].at(i).type))
        ++i;
    return i + 1;
}

// It looks neither at the instance nor behind the record that is wrong, which is the last one there is.
void run_refused(tool::Context context) {
    context.args.resize(read_until_refused(context));
    context.args.shrink_to_fit();
    KelRtContext record{};
    record.args = context.args.data();
    record.num_args = context.num_args;
    record.target = context.target;
    const uint32_t status = kelRt_executeContext(nullptr, context.null ? nullptr : &record);
    must(status == NNA_STATUS_NULL_POINTER || status == NNA_STATUS_INVALID_ARGUMENT ||
             status == NNA_STATUS_TYPE_MISMATCH,
         "a refusal has the status of one");
    must((status == NNA_STATUS_NULL_POINTER) == context.null, "only no context at all is a null pointer");
}

// ---- what it runs ----

// A context and its memories: those of its arguments, each as large as the operands in it.
class Operands {
  public:
    Operands(tool::Context context, fuzz::Input& input, uint8_t flags)
        : context_(std::move(context)), op_(*tool::operator_of(context_)) {
        context_.op = &op_;
        for (size_t i = kFirstArgument; i < kFirstArgument + op_.arguments.size(); ++i) {
            choices_.push_back(context_.args[i].value);
            if (op_.at(i).is_memory())
                context_.args[i].value = 0;
        }
        context_.args.resize(kFirstArgument + op_.arguments.size());
        input_ = input.take(SIZE_MAX);
        flags_ = flags;
    }

    // Whether a machine has room for it: scalars that ask for too much are made smaller first.
    bool shrink() {
        for (const uint32_t mask : {UINT32_MAX, 0xFFu, 0x1Fu, 7u}) {
            for (size_t i = kFirstArgument; i < context_.args.size(); ++i) {
                if (op_.at(i).type == KEL_RT_ARG_VAL)
                    context_.args[i].value &= mask;
            }
            if (fits())
                return true;
        }
        return false;
    }

    // Places operands as the input says or, if that would lay over each other what must not be, each in a
    // memory of its own.
    tool::Job place() {
        tool::Job job = placed([&](size_t i) { return choices_[i - kFirstArgument]; });
        if (complaint(job).empty()) {
            refuse_less(job);
            return job;
        }
        uint32_t next = 0;
        job = placed([&](size_t i) { return (choices_[i - kFirstArgument] & ~7u) | next++; });
        const std::string wrong = complaint(job);
        must(wrong.empty(),
             "operands that lie apart, with the bytes of their footprints, are accepted: " + wrong);
        refuse_less(job);
        return job;
    }

    const tool::Context& context() const { return context_; }

  private:
    std::vector<uint32_t> values() const { return tool::values_of(context_.own()); }

    uint64_t end_of(size_t i, tool::Values v) const {
        for (const tool::Lookup& lookup : op_.lookups) {
            if (lookup.table == i)
                return (kRow + 1) * lookup.row_bytes(v);
        }
        // Rows of nothing are calls all the same, which the tool allows as many as there are bytes.
        const uint64_t calls = tool::moves_sram(tool::id_of(op_)) && v[3] == 0 ? v[5] : 0;
        return std::max({op_.at(i).read_range(v).end, op_.at(i).written_range(v).end, calls});
    }

    bool fits() const {
        const std::vector<uint32_t> v = values();
        if (tool::moves_sram(tool::id_of(op_)) && (v[5] > kMaxRows || v[4] > kMaxBytes))
            return false;
        for (size_t i = kFirstArgument; i < context_.args.size(); ++i) {
            if (op_.at(i).is_memory() && end_of(i, v) > kMaxBytes)
                return false;
        }
        return true;
    }

    // A choice is the memory in its low three bits, of which the last value is none, and its kind in the
    // next.
    template <typename Choice>
    tool::Job placed(Choice choice) {
        std::vector<uint64_t> sizes(kMemories);
        bool on_cpu[kMemories] = {};
        const std::vector<uint32_t> v = values();
        for (size_t i = kFirstArgument; i < context_.args.size(); ++i) {
            KelRtContextArg& arg = context_.args[i];
            if (!op_.at(i).is_memory())
                continue;
            const uint32_t chosen = choice(i), id = chosen & 7;
            arg.value = id == kMemories ? KEL_RT_NO_MEMORY_ID : id;
            arg.offset = id == kMemories ? 0 : arg.offset & 0xFF;
            if (id == kMemories)
                continue;
            sizes[id] = std::max(sizes[id], tool::start_of(op_, arg.offset) + end_of(i, v));
            if (!tool::moves_sram(tool::id_of(op_)))
                sizes[id] = std::max<uint64_t>(sizes[id], arg.offset);
            on_cpu[id] = chosen & 8;
        }
        tool::Job job;
        contexts::Random random(1);
        fuzz::Input input(input_);
        for (size_t id = 0; id < kMemories; ++id) {
            const auto size = static_cast<size_t>(sizes[id]);
            npy::Array initial{npy::Type::u1, {size}, contexts::operand(size, kRow, random)};
            if (!(flags_ & kFloats))
                std::generate(initial.bytes.begin(), initial.bytes.end(),
                              [&] { return static_cast<uint8_t>(random()); });
            const fuzz::Bytes given = input.take(size);
            std::copy(given.begin(), given.end(), initial.bytes.begin());
            must(job.add_memory({"m" + std::to_string(id), on_cpu[id], std::move(initial)}), "memories fit");
        }
        set_indices(job);
        if (tool::moves_sram(tool::id_of(op_))) {
            const Range rows = tool::sram_addresses(v);
            const auto size = static_cast<size_t>(std::min(rows.length(), kMaxBytes));
            must(job.add_sram({v[2], {npy::Type::u1, {size}, std::vector<uint8_t>(size, 0x5A)}}),
                 "SRAM fits");
        }
        return job;
    }

    // The library takes whatever row the data names.
    void set_indices(tool::Job& job) const {
        for (const tool::Lookup& lookup : op_.lookups) {
            const KelRtContextArg& index = context_.args[lookup.index];
            if (index.value == KEL_RT_NO_MEMORY_ID)
                continue;
            uint8_t* const at = &job.memories[index.value].initial.bytes[index.offset];
            float value;
            std::memcpy(&value, at, sizeof value);
            if (tool::row_of(value) > kRow) {
                value = kRow;
                std::memcpy(at, &value, sizeof value);
            }
        }
    }

    // A byte less is too little; of a table that hangs on the row that is asked for.
    void refuse_less(tool::Job job) const {
        for (uint32_t id = 0; id < job.memories.size(); ++id) {
            const bool is_table = std::any_of(
                op_.lookups.begin(), op_.lookups.end(),
                [&](const tool::Lookup& lookup) { return context_.args[lookup.table].value == id; });
            npy::Array& initial = job.memories[id].initial;
            if (is_table || initial.bytes.empty())
                continue;
            initial.bytes.pop_back();
            must(!complaint(job).empty(), "a memory that is a byte too small is refused");
            initial.bytes.push_back(0);
        }
    }

    // "" or why the tool would refuse it; of types it wants no more than the library reads.
    std::string complaint(tool::Job& job) const {
        std::vector<KelRtContextArg> arguments(context_.own().begin(), context_.own().end());
        for (KelRtContextArg& arg : arguments)
            arg.type &= 0xFF;
        std::string first;
        tool::check_arguments(op_, arguments, job, [&](size_t, const std::string& what) {
            if (first.empty())
                first = what;
        });
        return first;
    }

    static constexpr uint32_t kRow = 3;  // of a table, the last one that there is

    tool::Context context_;
    const tool::Operator& op_;
    std::vector<uint32_t> choices_;
    fuzz::Bytes input_;
    uint8_t flags_ = 0;
};

// What a run has left: what the CPU sees of each memory, what the accelerator sees of its own, and the SRAM.
struct Left {
    uint32_t status;
    uint8_t out_shift;
    std::vector<std::vector<uint8_t>> cpu, device;
    std::vector<uint8_t> sram;
};

class Run {
  public:
    Run(const tool::Job& job, const tool::Context& context)
        : job_(job),
          context_(context),
          op_(*context.op),
          values_(tool::values_of(context.own())),
          machine_(job) {}

    Left run() {
        machine_.reset();
        machine_.show_memories();
        machine_.set_out_shift(kOutShift);
        const auto result = machine_.execute(context_);
        Left left{result.status, result.out_shift, {}, {}, {}};
        for (uint32_t id = 0; id < job_.memories.size(); ++id) {
            left.device.push_back(machine_.read(id).bytes);
            left.cpu.push_back(left.device.back());
            if (!job_.memories[id].on_cpu)
                std::copy_n(machine_.view(id), left.cpu.back().size(), left.cpu.back().begin());
        }
        if (job_.sram)
            left.sram = machine_.read_sram().bytes;
        return left;
    }

    void check(const Left& left) {
        const bool moves_sram = tool::moves_sram(tool::id_of(op_));
        must(is_documented(left.status) || (moves_sram && left.status == NNA_SIM_STATUS_OUT_OF_RANGE),
             "a status is one of those documented");
        const bool ok = left.status == NNA_STATUS_OK;
        must(left.out_shift == kOutShift ||
                 (ok && left.out_shift <= 4 && tool::chooses_scale(tool::id_of(op_), values_)),
             "a shift is told where one is chosen");
        for (uint32_t id = 0; id < job_.memories.size(); ++id) {
            check_kept(id, left.cpu[id], ok || moves_sram, "the CPU's bytes change where the catalogue says");
            const bool published =
                job_.memories[id].on_cpu || is_named(id, [&](size_t i) { return op_.at(i).is_published(); });
            check_kept(id, left.device[id], published && (ok || moves_sram),
                       "the accelerator's bytes change where the catalogue says, in what is published");
        }
        must(machine_.synced_bytes(0) ==
                 (ok && !moves_sram ? named_bytes([&](size_t i) { return op_.at(i).is_published(); }) : 0),
             "each result is published, whole and once, if there is one");
        if (ok && !moves_sram)
            must(machine_.synced_bytes(1) == named_bytes([&](size_t i) {
                     return op_.fetches_outputs || op_.at(i).use != tool::Use::Output;
                 }),
                 "each operand is fetched, whole and once");
    }

  private:
    static constexpr uint8_t kOutShift = 77;

    template <typename Which>
    bool is_named(uint32_t id, Which which) const {
        for (size_t i = kFirstArgument; i < context_.args.size(); ++i) {
            if (op_.at(i).is_memory() && context_.args[i].value == id && which(i))
                return true;
        }
        return false;
    }

    // Of all accelerator memories that such arguments name, by each of them.
    template <typename Which>
    uint64_t named_bytes(Which which) const {
        uint64_t bytes = 0;
        for (size_t i = kFirstArgument; i < context_.args.size(); ++i) {
            const uint32_t id = context_.args[i].value;
            if (op_.at(i).is_memory() && id != KEL_RT_NO_MEMORY_ID && !job_.memories[id].on_cpu && which(i))
                bytes += job_.memories[id].size();
        }
        return bytes;
    }

    void check_kept(uint32_t id, const std::vector<uint8_t>& after, bool may_write, const char* what) const {
        std::vector<uint8_t> kept = job_.memories[id].initial.bytes;
        for (size_t i = kFirstArgument; may_write && i < context_.args.size(); ++i) {
            if (!op_.at(i).is_memory() || context_.args[i].value != id)
                continue;
            const Range range = op_.at(i).written_range(values_);
            const uint64_t start = tool::start_of(op_, context_.args[i].offset);
            for (uint64_t at = start + range.begin; at < start + range.end; ++at)
                kept[static_cast<size_t>(at)] = after[static_cast<size_t>(at)];
        }
        must(kept == after, what);
    }

    const tool::Job& job_;
    const tool::Context& context_;
    const tool::Operator& op_;
    const std::vector<uint32_t> values_;
    tool::Machine machine_;
};

void run_accepted(Operands& operands) {
    tool::Job job = operands.place();
    std::optional<Left> before;
    for (const bool other_way : {false, true}) {
        for (tool::Memory& memory : job.memories)
            memory.on_cpu ^= other_way;
        Run run(job, operands.context());
        Left left = run.run();
        run.check(left);
        if (before) {
            must(left.status == before->status && left.out_shift == before->out_shift,
                 "the same status both ways");
            must(left.cpu == before->cpu && left.sram == before->sram, "the same bits both ways");
        }
        before = std::move(left);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input({data, size});
    const uint8_t flags = input.byte();
    fuzz::quiet(flags & kDebug ? 0 : 4);
    const tool::Context context = read_context(input, flags);
    if (!tool::operator_of(context)) {
        run_refused(context);
        return 0;
    }
    Operands operands(context, input, flags);
    if (operands.shrink())
        run_accepted(operands);
    return 0;
}
