// The CPU buffer table and the runtime's memory functions: sequences of calls, each held against a model of
// the table and of the simulated accelerator: status, table, bytes, pointers.
#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "fuzz.h"
#include "kelRt.h"
#include "kelRt_platform.h"
#include "nna_sim.h"

namespace {

using fuzz::must;

constexpr uint32_t kIds = 8, kLargest = 511;
// Of the accelerator memories, whose ids are the first; the others it does not know.
constexpr uint32_t kSizes[] = {0, 5, 64};

using Memories = std::map<uint32_t, std::vector<uint8_t>>;

// The driver, and beside it what there must be.
class Driver {
  public:
    Driver() {
        instance_.device = sim_;
        instance_.cpu_buffers = storage_;
        instance_.cpu_buffer_lookup = storage_;
        for (const uint32_t size : kSizes) {
            const uint32_t id = nna_sim_add_memory(sim_, size);
            device_[id].assign(size, 0);
            view_[id].assign(size, NNA_SIM_STALE_BYTE);
        }
    }
    ~Driver() {
        instance_.cpu_buffers = storage_;
        for (uint32_t id = 0; id < kIds; ++id)
            must(tivNnaCpuMemDealloc(&instance_, id) ==
                     (buffers_.count(id) ? NNA_STATUS_OK : NNA_STATUS_NOT_ALLOCATED),
                 "what is left is released");
        nna_sim_destroy(sim_);
    }
    Driver(const Driver&) = delete;

    void step(fuzz::Input& input) {
        const uint8_t what = input.byte();
        const uint32_t id = input.byte() % kIds;
        switch (what % 13) {
            case 0:
                return allocate(id, input.word() % (kLargest + 1), input.byte());
            case 1:
                return release(id);
            case 2:
                return write(id, input.word(), input.take(input.word() % (kLargest + 1)));
            case 3:
                return read(id, input.word(), input.word() % (kLargest + 1));
            case 4:
                return look_up(id, input.byte() % 4 == 0);
            case 5:
                instance_.cpu_buffers = input.byte() % 4 == 0 ? nullptr : storage_;
                return;
            case 6:
                return choose_lookup(input.byte());
            case 7:
                return resolve(memory_id(input), false);
            case 8:
                return resolve(memory_id(input), true);
            case 9:
                return publish(memory_id(input), input.byte());
            case 10:
                return hand_back(memory_id(input), input.byte());
            case 11:
                return touch_memory(id, input.byte(), input.byte());
            case 12:
                return fail_next_call(input.word());
        }
    }

    void check() {
        for (uint32_t id = 0; id < kIds; ++id) {
            const auto buffer = buffers_.find(id);
            const bool has = buffer != buffers_.end();
            must((storage_[id].ptr != nullptr) == has, "the table has a buffer where there is one");
            must(storage_[id].size == (has ? buffer->second.size() : 0), "the table has its size");
            if (has)
                must(std::equal(buffer->second.begin(), buffer->second.end(),
                                static_cast<const uint8_t*>(storage_[id].ptr)),
                     "a buffer has its bytes");
            if (id >= std::size(kSizes))
                continue;
            std::vector<uint8_t> bytes(kSizes[id]);
            nna_sim_device_read(sim_, id, 0, bytes.data(), kSizes[id]);
            must(bytes == device_[id], "the accelerator sees its bytes");
            must(std::equal(view_[id].begin(), view_[id].end(), nna_sim_cpu_view(sim_, id)),
                 "the CPU sees its bytes");
        }
    }

  private:
    static uint32_t memory_id(fuzz::Input& input) {
        const uint32_t id = input.byte() % (kIds + 1);
        return id == kIds ? KEL_RT_NO_MEMORY_ID : id;
    }

    // ---- the driver's own calls ----

    void allocate(uint32_t id, uint32_t size, uint8_t fill) {
        const uint32_t status = tivNnaCpuMemAlloc(&instance_, id, size);
        if (!instance_.cpu_buffers)
            return must(status == NNA_STATUS_NULL_POINTER, "without a table nothing is allocated");
        if (buffers_.count(id))
            return must(status == NNA_STATUS_ALREADY_ALLOCATED, "a buffer is allocated once");
        must(status == NNA_STATUS_OK, "a buffer is allocated");
        buffers_[id].assign(size, fill);
        must(tivNnaCpuMemWrite(&instance_, id, 0, buffers_[id].data(), size) == NNA_STATUS_OK,
             "a buffer takes as many bytes as it was made for");
    }

    void release(uint32_t id) {
        const uint32_t status = tivNnaCpuMemDealloc(&instance_, id);
        if (!instance_.cpu_buffers)
            return must(status == NNA_STATUS_NULL_POINTER, "without a table nothing is released");
        must(status == (buffers_.erase(id) ? NNA_STATUS_OK : NNA_STATUS_NOT_ALLOCATED),
             "a buffer is released once");
    }

    // The status of an access; the check is of a sum that wraps.
    uint32_t access(uint32_t id, uint32_t offset, uint32_t size, uint32_t overflow) const {
        if (!instance_.cpu_buffers || !buffers_.count(id))
            return NNA_STATUS_NULL_POINTER;
        return offset + size <= buffers_.at(id).size() ? uint32_t{NNA_STATUS_OK} : overflow;
    }

    // What wraps past the check is the driver's to avoid.
    bool escapes(uint32_t id, uint32_t offset, uint32_t size) const {
        return size > 0 && uint64_t{offset} + size > UINT32_MAX &&
               access(id, offset, size, 0) == NNA_STATUS_OK;
    }

    void write(uint32_t id, uint32_t offset, fuzz::Bytes bytes) {
        const auto size = static_cast<uint32_t>(bytes.size());
        if (escapes(id, offset, size))
            return;
        const uint32_t expected = access(id, offset, size, NNA_STATUS_WRITE_OVERFLOW);
        must(tivNnaCpuMemWrite(&instance_, id, offset, bytes.data(), size) == expected, "a write is let in");
        if (expected == NNA_STATUS_OK && size > 0)
            std::copy(bytes.begin(), bytes.end(), buffers_[id].begin() + offset);
    }

    void read(uint32_t id, uint32_t offset, uint32_t size) {
        if (escapes(id, offset, size))
            return;
        const uint32_t expected = access(id, offset, size, NNA_STATUS_READ_OVERFLOW);
        std::vector<uint8_t> bytes(size, 0xC5);
        must(tivNnaCpuMemRead(&instance_, id, offset, bytes.data(), size) == expected, "a read is let in");
        std::vector<uint8_t> model(size, 0xC5);
        if (expected == NNA_STATUS_OK && size > 0)
            std::copy_n(buffers_[id].begin() + offset, size, model.begin());
        must(bytes == model, "a read brings what was written");
    }

    void look_up(uint32_t id, bool nowhere) {
        void* out = this;
        const uint32_t status = tivNnaCpuMemPtr(&instance_, id, nowhere ? nullptr : &out);
        const bool fails = nowhere || !instance_.cpu_buffer_lookup;
        must(status == (fails ? NNA_STATUS_NULL_POINTER : NNA_STATUS_OK), "a look-up needs a table");
        must(out == (fails ? this : buffer_of(id)), "a look-up finds the buffer");
    }

    // Lookups see the driver's own buffers, those of another table, or none.
    void choose_lookup(uint8_t choice) {
        instance_.cpu_buffer_lookup = choice % 4 == 0 ? nullptr : choice % 4 == 1 ? other_ : storage_;
        for (uint32_t id = 0; id < kIds; ++id)
            other_[id] = (choice >> 2 & (id + 1)) ? CpuBufferEntry{&elsewhere_[id], 1} : CpuBufferEntry{};
    }

    void touch_memory(uint32_t id, uint8_t at, uint8_t value) {
        if (id >= std::size(kSizes) || kSizes[id] == 0)
            return;
        at = static_cast<uint8_t>(at % kSizes[id]);
        device_[id][at] = value;
        nna_sim_device_write(sim_, id, at, &value, 1);
        view_[id][at] = static_cast<uint8_t>(~value);
        nna_sim_cpu_view(sim_, id)[at] = view_[id][at];
    }

    // ---- the runtime's calls ----

    void* buffer_of(uint32_t id) const {
        const CpuBufferEntry* const table = instance_.cpu_buffer_lookup;
        return table && id != KEL_RT_NO_MEMORY_ID ? table[id].ptr : nullptr;
    }

    void fail_next_call(uint32_t status) {
        fault_ = status == NNA_STATUS_OK ? 0 : status;
        nna_sim_fail_call(sim_, 0, 0);
        nna_sim_fail_call(sim_, 1, *fault_);
    }

    // The status of the next platform call on a memory.
    uint32_t platform(uint32_t id) {
        const uint32_t status =
            id < std::size(kSizes) ? uint32_t{NNA_STATUS_OK} : uint32_t{NNA_SIM_STATUS_UNKNOWN_MEMORY};
        return std::exchange(fault_, std::nullopt).value_or(status);
    }

    // Of cache maintenance: the size is asked first.
    uint32_t synced(uint32_t id, Memories& to, const Memories& from) {
        if (platform(id) != NNA_STATUS_OK || platform(id) != NNA_STATUS_OK)
            return NNA_STATUS_MEMORY_SYNC_FAILED;
        to[id] = from.at(id);
        return NNA_STATUS_OK;
    }

    void resolve(uint32_t id, bool fetch) {
        void* out = this;
        const uint32_t status =
            fetch ? kel_rtMemory_copyFrom(&instance_, id, &out) : kel_rtMemory_allocate(&instance_, id, &out);
        uint32_t expected = NNA_STATUS_OK;
        void* pointer = buffer_of(id);
        if (!pointer && id != KEL_RT_NO_MEMORY_ID) {
            if (fetch)
                expected = synced(id, view_, device_);
            if (expected == NNA_STATUS_OK)
                expected = platform(id);
            if (expected == NNA_STATUS_OK)
                pointer = nna_sim_cpu_view(sim_, id);
        }
        must(status == expected, "a memory is resolved, or why not is said");
        must(out == pointer, "a memory is resolved to its buffer, its view or nothing");
    }

    // The right pointer, none, or another.
    void* pointer_for(uint32_t id, uint8_t choice) {
        void* const buffer = buffer_of(id);
        void* const view = nna_sim_cpu_view(sim_, id);
        void* const right = buffer ? buffer : view ? view : this;
        return choice % 4 == 0 ? nullptr : choice % 4 == 1 ? &instance_ : right;
    }

    void publish(uint32_t id, uint8_t choice) {
        void* const pointer = pointer_for(id, choice);
        const uint32_t status = kel_rtMemory_copyTo(&instance_, pointer, id);
        uint32_t expected = NNA_STATUS_NULL_POINTER;
        if (pointer && buffer_of(id))
            expected = pointer == buffer_of(id) ? NNA_STATUS_OK : NNA_STATUS_NULL_POINTER;
        else if (pointer)
            expected = synced(id, device_, view_);
        must(status == expected, "a memory is published, or why not is said");
    }

    void hand_back(uint32_t id, uint8_t choice) {
        void* const pointer = pointer_for(id, choice);
        const uint32_t status = kel_rtMemory_deallocate(&instance_, pointer, id);
        uint32_t expected = NNA_STATUS_OK;
        const auto matches = [&](const void* right) {
            return pointer == right ? NNA_STATUS_OK : NNA_STATUS_NULL_POINTER;
        };
        if (id != KEL_RT_NO_MEMORY_ID && buffer_of(id)) {
            expected = matches(buffer_of(id));
        } else if (id != KEL_RT_NO_MEMORY_ID) {
            expected = platform(id);
            if (pointer && expected == NNA_STATUS_OK)
                expected = matches(nna_sim_cpu_view(sim_, id));
        }
        must(status == expected, "a pointer that comes back is checked");
    }

    NnaSim* const sim_ = nna_sim_create();
    KelRtInstance instance_{};
    CpuBufferEntry storage_[kIds]{}, other_[kIds]{};
    uint8_t elsewhere_[kIds]{};

    Memories buffers_, device_, view_;
    std::optional<uint32_t> fault_;  // what the next platform call returns instead of its own status
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quiet(data && size > 0 && data[0] % 8 == 0 ? 0 : 4);
    fuzz::Input input({data, size});
    Driver driver;
    while (!input.empty()) {
        driver.step(input);
        driver.check();
    }
    return 0;
}
