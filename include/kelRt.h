/*
 * libkelRt: the CPU operator runtime of a neural-network-accelerator driver stack.
 *
 * The driver hands over the layers that its accelerator cannot run, one context at a time, through
 * kelRt_executeContext. The kernels that the operators run are exported as well and can be called directly.
 *
 * Rules that hold for everything here, unless a function says otherwise:
 * - The library has no state, threads or locks. Calls are safe side by side as long as no two of them touch
 * the same memory id or the same arrays, the driver does not change the CPU buffer table meanwhile, and no
 * two "cpu_copy_fmt_conv" with an automatic scale share an instance, whose out_shift both would write. The
 * platform's functions are called on the callers' threads, side by side as well.
 * - Nothing aborts. A failure is a status code and, where stated, a log line; a kernel that refuses its
 * arguments has written nothing.
 * - Tensors are dense and row-major, 32-bit floats in native byte order. Pointers may sit at any byte
 * address: no kernel asks for alignment.
 * - Arrays overlap only where a function says that they may; "`out` may be `in`" means the same array from
 * the same byte on. What is only read may overlap what is only read.
 * - Sizes are trusted: no kernel knows how large the memory behind a pointer is.
 */
#ifndef KEL_RT_H
#define KEL_RT_H

#include <stdint.h>
#if defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#define KEL_RT_API __attribute__((visibility("default")))

/* ------------------------------------------------------------ version -- */

/** Version of this interface, which the build reads here (docs/abi.md): this number rises when programs that
 * were built before stop working, */
#define KEL_RT_VERSION_MAJOR 1
/** this one when something is added, */
#define KEL_RT_VERSION_MINOR 0
/** and this one when something is mended. */
#define KEL_RT_VERSION_PATCH 0
/** All three as text. */
#define KEL_RT_VERSION_STRING "1.0.0"
/** To be compared: KEL_RT_VERSION >= 10200 is 1.2.0 and later. */
#define KEL_RT_VERSION (KEL_RT_VERSION_MAJOR * 10000 + KEL_RT_VERSION_MINOR * 100 + KEL_RT_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------ status codes -- */

/** Status of every function that returns uint32_t. Platform functions may return further values of their own.
 */
enum NnaStatus {
    NNA_STATUS_FAILED = 1000, /**< a handler met an operator that it does not serve; index out of range */
    NNA_STATUS_OK = 1001,     /**< success */
    NNA_STATUS_ALREADY_ALLOCATED = 1012, /**< the memory id already has a CPU buffer */
    NNA_STATUS_NOT_ALLOCATED = 1013,     /**< the memory id has no CPU buffer to release */
    NNA_STATUS_WRITE_OVERFLOW = 1016,    /**< write past the end of a CPU buffer */
    NNA_STATUS_READ_OVERFLOW = 1018,     /**< read past the end of a CPU buffer */
    NNA_STATUS_OUT_OF_MEMORY = 1042,     /**< the heap is exhausted */
    NNA_STATUS_NULL_POINTER =
        1056, /**< null context, pointer or table, or a pointer that is not the id's own */
    NNA_STATUS_UNSUPPORTED = 1063,        /**< a combination of flags that the operator does not support */
    NNA_STATUS_INVALID_ARGUMENT = 1064,   /**< bad target, count, operator id, type code or size */
    NNA_STATUS_TYPE_MISMATCH = 1065,      /**< an argument's type is not the operator's */
    NNA_STATUS_MEMORY_SYNC_FAILED = 1070, /**< size query or cache maintenance of accelerator memory failed */
};

/* ------------------------------------------------------------ records -- */

/** Type codes of context arguments; only the low byte of KelRtContextArg.type is examined. */
enum KelRtArgType {
    KEL_RT_ARG_NONE = 0, /**< "init_none" */
    KEL_RT_ARG_VAL = 1,  /**< "init_to_val": value is an integer */
    KEL_RT_ARG_MEM = 2, /**< "init_to_mem_idx": value is a memory id, offset a byte offset into that memory */
    KEL_RT_ARG_FLT = 3, /**< "init_to_flt": value is the bit pattern of a single-precision float */
};

/** Memory id that stands for no tensor. */
#define KEL_RT_NO_MEMORY_ID 0xFFFFFFFFu
/** The only accepted KelRtContext.target. */
#define KEL_RT_TARGET_CPU 1
/** Number of rows of the operator table; operator ids are 0 to KEL_RT_NUM_OPS - 1. */
#define KEL_RT_NUM_OPS 19

/** One argument of a context: 12 bytes. */
typedef struct KelRtContextArg {
    uint32_t type;   /**< a KelRtArgType in the low byte; the other bytes are not read */
    uint32_t offset; /**< memory arguments: byte offset of the operand inside the memory; otherwise unused */
    uint32_t value;  /**< integer, memory id or float bits, by type */
} KelRtContextArg;

/**
 * One operator invocation. Argument 0 carries the number of operator arguments that follow arguments 0 and 1,
 * argument 1 the operator id (low 8 bits), both as KEL_RT_ARG_VAL; the operator's own arguments start at 2.
 * The library only reads it.
 */
typedef struct KelRtContext {
    const KelRtContextArg* args; /**< the records, in order */
    uint32_t reserved0[2];       /**< not read */
    int32_t
        num_args; /**< number of records in args, more than 2; the operator's own count is read regardless */
    uint32_t reserved1; /**< not read */
    uint32_t target;    /**< KEL_RT_TARGET_CPU */
} KelRtContext;

/** CPU buffer of one memory id; a table of these is indexed by memory id. */
typedef struct CpuBufferEntry {
    void* ptr;     /**< heap buffer, null when the id has none */
    uint32_t size; /**< its size in bytes, 0 when none */
} CpuBufferEntry;

/**
 * The driver's instance, handed to every call. The library uses four fields; the words between belong to the
 * driver. The tables for allocation and for lookup are two fields on purpose: a driver that wants lookups to
 * see the buffers it allocated stores the same pointer in both.
 */
typedef struct KelRtInstance {
    void* device;                      /**< handle for the platform's memory functions */
    uintptr_t driver0[4];              /**< the driver's own, not read */
    CpuBufferEntry* cpu_buffers;       /**< table of tivNnaCpuMemAlloc, Dealloc, Write and Read */
    uintptr_t driver1[2];              /**< the driver's own */
    CpuBufferEntry* cpu_buffer_lookup; /**< table of tivNnaCpuMemPtr, which every operator consults */
    uintptr_t driver2[4];              /**< the driver's own */
    /** 0 to 4, written by "cpu_copy_fmt_conv" when it chooses the output scale itself: the last one to run
     * says which. Where two may run at once, give each an instance of its own; the tables may be shared. */
    uint8_t out_shift;
    uint8_t driver3[sizeof(uintptr_t) - 1]; /**< the driver's own */
} KelRtInstance;

/* ------------------------------------------------------------ entry point -- */

/**
 * Checks `context` against the operator table, runs its operator on the calling thread and returns its
 * status. `instance` is passed on, and nothing of it but out_shift is ever written. A null context is an
 * error (1056), not a fault.
 */
KEL_RT_API uint32_t kelRt_executeContext(KelRtInstance* instance, const KelRtContext* context);

/* ------------------------------------------------------------ CPU buffer table -- */
/* The driver's own heap buffers for tensors that live only between CPU operators. The driver provides the
 * table and sizes it for every memory id that it uses; no function here knows its capacity. `instance` is
 * never null-checked. */

/** Creates the buffer of `memid`, uninitialised. 1012 (and an ERR line) if it has one, 1042, 1056 without a
 * table. */
KEL_RT_API uint32_t tivNnaCpuMemAlloc(KelRtInstance* instance, uint32_t memid, uint32_t size);

/** Frees the buffer of `memid`. 1013 (and a DEBUG line) if it has none, 1056 without a table. */
KEL_RT_API uint32_t tivNnaCpuMemDealloc(KelRtInstance* instance, uint32_t memid);

/**
 * Copies `size` bytes from `src` into the buffer at byte `offset`. 1016 (and an ERR line) when offset + size,
 * in wrapping 32-bit arithmetic, exceeds the buffer; 1056 without a table or buffer.
 */
KEL_RT_API uint32_t tivNnaCpuMemWrite(KelRtInstance* instance, uint32_t memid, uint32_t offset,
                                      const void* src, uint32_t size);

/** Copies `size` bytes from the buffer at byte `offset` to `dst`. As tivNnaCpuMemWrite, with 1018 for 1016.
 */
KEL_RT_API uint32_t tivNnaCpuMemRead(KelRtInstance* instance, uint32_t memid, uint32_t offset, void* dst,
                                     uint32_t size);

/**
 * Stores the buffer of `memid` in *out_ptr: null, with status 1001, when the id has none. 1056 when out_ptr
 * is null, and, leaving *out_ptr as it was, when the instance has no lookup table.
 */
KEL_RT_API uint32_t tivNnaCpuMemPtr(KelRtInstance* instance, uint32_t memid, void** out_ptr);

/* ------------------------------------------------------------ runtime memory -- */
/* A memory id is served by its CPU buffer or, failing that, by the CPU's mapping of the accelerator memory.
 * Nothing is copied or allocated: these functions choose, check and synchronise caches, always over the whole
 * memory. */

/** An output that the CPU will write: *out_ptr becomes its pointer (null for KEL_RT_NO_MEMORY_ID). No cache
 * work. */
KEL_RT_API uint32_t kel_rtMemory_allocate(KelRtInstance* instance, uint32_t memid, void** out_ptr);

/** An input that the CPU will read: as allocate, after making the caches coherent. 1070 when that fails. */
KEL_RT_API uint32_t kel_rtMemory_copyFrom(KelRtInstance* instance, uint32_t memid, void** out_ptr);

/**
 * Publishes what the CPU wrote at `ptr`, and whatever else the CPU's view of that memory holds: operands too
 * that a kernel left changed (see kelRt_matmul and kelRt_lstmStates), unless a copyFrom has fetched the
 * memory anew in between. 1056 when ptr is null or not the id's CPU buffer, 1070 as copyFrom.
 */
KEL_RT_API uint32_t kel_rtMemory_copyTo(KelRtInstance* instance, void* ptr, uint32_t memid);

/** Hands a pointer back: checks that it is the one the id resolves to (else 1056); frees nothing. */
KEL_RT_API uint32_t kel_rtMemory_deallocate(KelRtInstance* instance, void* ptr, uint32_t memid);

/**
 * Moves `rows` rows of `row_size` bytes between SRAM, where row r lies at sram_address + r * sram_stride, and
 * `memory`, where rows are packed; all in wrapping 32-bit arithmetic. The platform knows the direction, and
 * get and set are the same. Returns the status of the last row: earlier failures neither count nor stop it.
 * No cache is maintained. No rows, no platform call: 1001.
 */
KEL_RT_API uint32_t kel_rtNnaSramGet(KelRtInstance* instance, uint32_t sram_address, uint32_t row_size,
                                     uint32_t sram_stride, uint32_t rows, void* memory);
KEL_RT_API uint32_t kel_rtNnaSramSet(KelRtInstance* instance, uint32_t sram_address, uint32_t row_size,
                                     uint32_t sram_stride, uint32_t rows, void* memory);

/* ------------------------------------------------------------ format conversion -- */
/* hw32 is the accelerator's layout of 32-bit data: lines of L elements, each stored as four planes of L
 * bytes, the least significant bytes of all its elements first. Bytes are moved, not interpreted, so integers
 * and floats convert alike. Linear layout is the plain array of little-endian words. */

/**
 * Converts the whole lines of `size` elements in lines of `nna_out_line_sz`: from hw32 to linear when `dir`
 * is 0, to hw32 otherwise. Any line size is exact. The elements after the last whole line are not written;
 * fewer elements than one line, or a line size of 0, convert nothing and return 1001 all the same.
 * *out_bytes, if given, becomes 4 * size (wrapping) regardless. `output` may be `input`. 1056 (and an ERR
 * line) if either is null.
 */
KEL_RT_API uint32_t kelRt_hw32FmtConvParam(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                                           uint32_t nna_out_line_sz, uint32_t* out_bytes);

/** kelRt_hw32FmtConvParam with lines of 8 elements. */
KEL_RT_API uint32_t kelRt_hw32FmtConv(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                                      uint32_t* out_bytes);

/** One line of L elements, hw32 to linear. Any L; `dst` and `src` may overlap. Pointers are not checked. */
KEL_RT_API void convert_hw_lin(uint8_t* dst, const uint8_t* src, uint32_t L);

/**
 * 1, 2, 4 or 8 lines of the same L, anywhere in memory, hw32 to linear. L must be a multiple of 8, for the
 * sake of implementations that overrun the line otherwise; this one does not. No destination may overlap a
 * source. Pointers are not checked.
 */
KEL_RT_API void convert_hw_lin_neon_1(uint8_t* dst, const uint8_t* src, uint32_t L);
KEL_RT_API void convert_hw_lin_neon_2(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                                      uint32_t L);
KEL_RT_API void convert_hw_lin_neon_4(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                                      uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                                      uint32_t L);
KEL_RT_API void convert_hw_lin_neon_8(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                                      uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                                      uint8_t* dst4, const uint8_t* src4, uint8_t* dst5, const uint8_t* src5,
                                      uint8_t* dst6, const uint8_t* src6, uint8_t* dst7, const uint8_t* src7,
                                      uint32_t L);

/**
 * Copies `count` elements with conversion of their number format. Formats are total bits (8, 16 or 32 for
 * signed integers of the input, 8 for those of the output, 0xFFFFFFFF for floats on either side), fractional
 * bits (at most the total bits; floats have none) and a scale: a raw integer q stands for
 * q * scale / 2^frac_bits.
 *
 * To float: out[i] = q * factor, one rounding each for q, factor and product. To 8 bits: the float value
 * times 2^out_frac_bits / out_scale, clamped to -128 .. 127 and truncated toward zero; NaN gives 0. From
 * float to float nothing is copied at all.
 *
 * An out_scale of 0 with 8-bit output chooses the scale: 2^shift, with the shift that
 * getExtraInputScaleFactor finds for the smallest and largest value of the input; it is stored in *out_shift,
 * which is otherwise left alone (and may then be null). That range is measured on the input's bytes read as
 * `count` floats whatever the input's width, and at least four: the caller provides 4 * max(count, 4)
 * readable bytes, and for integer input the shift means nothing beyond that rule.
 *
 * *out_bytes, if given, becomes 4 * count (wrapping), or count for 8-bit output. 1056 (no log line) if output
 * or input is null; 1064 and ERR lines for a count of 0, a format that is not listed above, and an integer
 * input with scale 0; 1042 (and an ERR line) when the heap has no room for the floats of integers that become
 * 8 bits. The buffers may be the same when the output's elements are as wide as the input's, or output is 8
 * bits and input integer.
 */
KEL_RT_API uint32_t kelRt_copyFormatConv(uint8_t* output, uint32_t out_tot_bits, uint32_t out_frac_bits,
                                         uint32_t out_scale, const uint8_t* input, uint32_t inp_tot_bits,
                                         uint32_t inp_frac_bits, uint32_t inp_scale, uint32_t count,
                                         uint8_t* out_shift, uint32_t* out_bytes);

/**
 * How far values between `min` and `max` have to be shifted down to fit tot_bits with frac_bits of them
 * fractional: with range = 2^(tot_bits - frac_bits - 1), *result becomes 0 if min >= -range and max < range
 * (NaN fits), else the larger of ceil(log2(min / -range)) for negative min and ceil(log2(max / range)) for
 * max >= 0, at most 4. The power of two is 1 << n in 32-bit signed integers, for the low 8 bits of n: 2^31 is
 * negative, larger ones are 0. The result is a whole number from 0 to 4, except that it may be NaN for a
 * range of -2^31 (n is 31).
 */
KEL_RT_API void getExtraInputScaleFactor(float max, float min, uint32_t tot_bits, uint32_t frac_bits,
                                         float* result);

/* ------------------------------------------------------------ operator kernels -- */

/**
 * out[i] = a[i] + b[i] for i in 0..n-1. `out` may be `a` or `b`. *out_bytes, if given, becomes 4n (wrapping).
 * 1056 (and an ERR line) if out, a or b is null.
 */
KEL_RT_API uint32_t kelRt_ewopAdd(float* out, const float* a, const float* b, uint32_t n,
                                  uint32_t* out_bytes);

/**
 * out = e^in / sum of e^in over one group of n values, in that order: kelRt_expf, kelRt_sumf, one reciprocal,
 * kelRt_scalef, and their accuracy. The largest input is NOT subtracted first: keep inputs below 88, or the
 * result is NaN; a sum of 0 is not looked for either. `out` may be `in`. *out_bytes, if given, becomes 4n
 * (wrapping). 1056 (and an ERR line) if out or in is null.
 */
KEL_RT_API uint32_t kelRt_softMax(float* out, const float* in, uint32_t n, uint32_t* out_bytes);

/**
 * Fills `out` with d times off_value, then sets element k to on_value; the values are bit patterns of floats
 * and are stored as they are. k is index[0] truncated toward zero to 64 unsigned bits, of which the low 32
 * count: numbers and NaNs with a sign give 0, numbers from 2^64 on and NaNs without give 0xFFFFFFFF, 2^32
 * gives 0. *out_bytes, if given, becomes 4d (wrapping). 1056 if out or index is null; 1000, with nothing
 * written, if k >= d. Neither writes a log line.
 */
KEL_RT_API uint32_t kelRt_oneHot(float* out, const float* index, uint32_t d, uint32_t on_value,
                                 uint32_t off_value, uint32_t* out_bytes);

/**
 * Copies row k of a table with rows of w floats to `out`; k comes from index[0] as in kelRt_oneHot. k is NOT
 * checked against the table, and the byte offset 4wk wraps at 32 bits. `out` must not overlap the row.
 * *out_bytes, if given, becomes 4w (wrapping). 1056, without a log line, if a pointer is null or w is 0.
 */
KEL_RT_API uint32_t kelRt_embedding(float* out, const float* index, const float* table, uint32_t w,
                                    uint32_t* out_bytes);

/** Copies `nbytes` bytes; the areas must not overlap. Source first. 1056 (and an ERR line) if either is null.
 */
KEL_RT_API uint32_t kelRt_split(const void* src, void* dst, uint32_t nbytes);

/**
 * Normalises frames of `featureLen` values: output[f][k] = (input[f][k] - mean[k]) / var[k], a true division
 * by `var` as given. `total` counts the floats of the input; a trailing partial frame is not written, and
 * nothing is when featureLen > total. `output` may be `input`; it must not overlap mean or var. 1056 (and an
 * ERR line) if a pointer is null.
 */
KEL_RT_API uint32_t kelRt_featurenorm(const float* input, uint32_t total, const float* mean, const float* var,
                                      uint32_t featureLen, float* output);

/**
 * c = op(a) * op(b), where op transposes when its flag is non-zero. aRows x aCols and bRows x bCols are the
 * shapes as stored; c is M x N with M = transA ? aCols : aRows, N = transB ? bRows : bCols. The inner
 * dimension is a's; b is taken to have that many rows. Each c element is a single-precision sum in increasing
 * k. Dimensions are not checked; zero or negative ones give no work. 1056 (and an ERR line) if a pointer is
 * null.
 *
 * `a` and `b` are transposed in place when their flags are set, and left so. They may share bytes, which are
 * then transposed for both: x * x^T needs a copy of x. Where c overlaps them, it is written row by row, each
 * result as soon as it is summed (and slowly). As an operator, cpu_matmul publishes c alone; a transposed
 * operand reaches accelerator memory all the same when c lies in the same memory, or a later context
 * publishes that memory without having fetched it (see kel_rtMemory_copyTo).
 */
KEL_RT_API uint32_t kelRt_matmul(float* a, float* b, float* c, int32_t aRows, int32_t aCols, int32_t bRows,
                                 int32_t bCols, int32_t transA, int32_t transB);

/**
 * output = bias + (input - mean) / sd * scale over one channel of n values, with mean, population variance
 * and sd = sqrt(variance + 1e-05) of the input. Sums run in index order and are rounded to single precision
 * after every element, so large inputs lose digits. `output` may be `input`. n = 0 writes nothing.
 * *outputSize, if given, becomes 4n (wrapping). 1056 (and an ERR line) if output or input is null.
 */
KEL_RT_API uint32_t kelRt_instanceNorm(float* output, const float* input, uint32_t n, float scale, float bias,
                                       uint32_t* outputSize);

/**
 * Rearranges a feature map of rows x cols x channels bytes, channels innermost, into convolution patches: for
 * every output position, row by row, the kernelHeight x kernelWidth x channels bytes under it and zeros up to
 * the next multiple of 8 bytes. Only positions where the kernel fits whole: there are
 * (rows - kernelHeight) / rowStride + 1 by (cols - kernelWidth) / colStride + 1 of them, in wrapping unsigned
 * arithmetic, and a stride of 0 gives 1. A kernel larger than the input is NOT refused; the wrapped counts
 * rule. `filters` is only logged. 1056 (and an ERR line) if input or output is null.
 *
 * `output` is written only where patches are, but one patch may be written more than once; the input is read
 * only where patches come from. Should the two overlap, the bytes are moved one at a time in the order of the
 * output.
 */
KEL_RT_API uint32_t kelRt_im2col(const uint8_t* input, uint8_t* output, uint32_t rows, uint32_t cols,
                                 uint32_t channels, uint32_t kernelHeight, uint32_t kernelWidth,
                                 uint32_t filters, uint32_t rowStride, uint32_t colStride);

/**
 * One time step of a layer of n LSTM units. `gates` holds four blocks of n floats: input gate i, forget gate
 * f, output gate o, cell candidate g. Then, by the array kernels below and with their accuracy,
 *
 *     c = i * g + f * c        the new cell state, in place in cellState
 *     h = o * tanh(c)          the new hidden state, in output, whose old contents do not matter
 *
 * The two with Activation in their name take raw gate values and apply sigmoid (i, f, o) and tanh (g) first;
 * the others take activated values as they are, unclamped. The two with Cifg compute i = 1 - f and ignore
 * what block i holds. `gates` is scratch and is left overwritten (and, as an operand of cpu_matmul, may reach
 * accelerator memory). The three arrays must not overlap.
 *
 * 1056 if a pointer is null, 1064 if n is 0, neither with a log line. Otherwise a profiling line marks
 * beginning and end, when the platform profiles event 1.
 */
KEL_RT_API uint32_t kelRt_lstmStates(float* output, float* cellState, float* gates, uint32_t n);
KEL_RT_API uint32_t kelRt_lstmStatesCifg(float* output, float* cellState, float* gates, uint32_t n);
KEL_RT_API uint32_t kelRt_lstmStatesActivation(float* output, float* cellState, float* gates, uint32_t n);
KEL_RT_API uint32_t kelRt_lstmStatesActivationCifg(float* output, float* cellState, float* gates, uint32_t n);

/**
 * As the functions above, which of them by the flags `cifg` and `cpuActivation`, with layer normalisation
 * (kelRt_lstmLayerNorm) of the raw gates and of the new cell state. A flag is on when it is not 0.
 *
 * gateNorm: the gates are normalised before their activations, each block on its own (perGateNorm) or all
 * together; under cifg, block i is left out. The parameters of block k start k * n BYTES into gateGamma and
 * gateBeta, so those of successive blocks overlap; the two vectors are read up to byte 7n (perGateNorm), 13n
 * (together, cifg) or 16n (together).
 * cellNorm: the new cell state is normalised before its tanh. With cellNormInPlace the normalised one is also
 * what cellState keeps.
 *
 * 1056 if output, cellState or gates, or a parameter vector that the flags call for, is null; 1064 if n is 0;
 * 1063 (and an ERR line) for gateNorm without cpuActivation. A refused call has touched no vector.
 */
KEL_RT_API uint32_t kelRt_lstmStatesCifgActivationNorm(
    float* output, float* cellState, float* gates, uint32_t n, int32_t cifg, int32_t cpuActivation,
    float epsilon, const float* gateGamma, const float* gateBeta, const float* cellGamma,
    const float* cellBeta, int32_t gateNorm, int32_t perGateNorm, int32_t cellNorm, int32_t cellNormInPlace);

/**
 * dst = beta + gamma * ((src - mean) / sd) with mean and population variance of src and
 * sd = sqrt(variance + epsilon); kelRt_sumf, kelRt_variancef and kelRt_normf say in which order. `dst` may be
 * `src`. Checks nothing and returns 1001. With epsilon 0, equal elements give NaN or infinity.
 */
KEL_RT_API uint32_t kelRt_lstmLayerNorm(float* dst, const float* src, uint32_t n, const float* gamma,
                                        const float* beta, float epsilon);

/** Dumps sizeBytes / 4 floats to the log at DEBUG: the label, then all values on one line, three decimals. */
KEL_RT_API void kelRt_print(const float* data, int32_t sizeBytes, const char* label);

/* ------------------------------------------------------------ matrix toolkit -- */

/** A dense row-major matrix of floats. Mind the order: columns first. */
typedef struct KelRtMatrix {
    uint32_t cols; /**< elements of a row */
    uint32_t rows; /**< rows, one behind the other */
    float* data;   /**< the caller's */
} KelRtMatrix;

/** Fills the descriptor; the data stays the caller's. */
KEL_RT_API void m_init(KelRtMatrix* m, uint32_t cols, uint32_t rows, float* data);

/** Address of element (row, col); no bounds check. */
KEL_RT_API float* m_get(const KelRtMatrix* m, uint32_t row, uint32_t col);

/** c = a * b, for the rows and columns that c has; the inner dimension is a's columns. c must not overlap a
 * or b. */
KEL_RT_API void m_multiply(const KelRtMatrix* c, const KelRtMatrix* a, const KelRtMatrix* b);

/** Transposes in place: `data` holds newCols rows of newRows columns and becomes newRows rows of newCols
 * columns. */
KEL_RT_API void transpose(float* data, int32_t newRows, int32_t newCols);

/* ------------------------------------------------------------ four-lane maths -- */
/*
 * Approximations on four (or two) single-precision lanes, each lane by itself. On every machine they give the
 * bits of 32-bit Arm's NEON unit, whatever floating-point mode the caller runs in:
 * - round to nearest even; subnormal operands and results count as zero of their sign, a result already when
 * it is below 2^-126 before rounding; a product is rounded before it is added;
 * - a NaN result is 0x7FC00000 unless said otherwise; comparisons see subnormals as zero;
 * - float to integer (trunc below) rounds toward zero and saturates; NaN gives 0.
 *
 * A coefficient table is eight vectors of the caller's, 16-byte aligned, normally the same value in every
 * lane. The table of the array kernels' exponential, c[0] to c[7], is 0x3F800000, 0x3D2AA390, 0x3F00000A,
 * 0x3AB91BCB, 0x3F800001, 0x3C0897A6, 0x3E2AAA6A, 0x394D4A8B. No table for the logarithm comes with the
 * library.
 *
 * docs/accuracy.md tells how large the errors are and where each function stops working.
 */

#if defined(__ARM_NEON)
typedef float32x4_t kelRt_float32x4_t;
typedef float32x2_t kelRt_float32x2_t;
typedef int32x4_t kelRt_int32x4_t;
#else
/** Four floats, passed by value; on Arm this is the compiler's own type. */
typedef float kelRt_float32x4_t __attribute__((vector_size(16)));
/** Two floats, likewise. */
typedef float kelRt_float32x2_t __attribute__((vector_size(8)));
/** Four 32-bit integers, likewise. */
typedef int32_t kelRt_int32x4_t __attribute__((vector_size(16)));
#endif

/**
 * Factors of the sine series, 1/6, 1/20, 1/42 and 1/72: vsin_f32 and vsinq_f32 read them at every call.
 * Writing them is allowed and is the caller's to order against calls on other threads.
 */
extern KEL_RT_API float te_sin_coeff2, te_sin_coeff3, te_sin_coeff4, te_sin_coeff5;

/** Largest integer not above x, for |x| below 2^31; beyond, the limits of 32-bit integers. NaN and
 * negative subnormals give +0; a zero result is always +0. */
KEL_RT_API kelRt_float32x4_t vfloorq_f32(kelRt_float32x4_t x);

/** Nearest integer, ties to even, in the range of vfloorq_f32. Negative inputs that round to zero give +0;
 * NaN gives 1. */
KEL_RT_API kelRt_float32x4_t vroundq_rte_f32(kelRt_float32x4_t x);

/** 1/sqrt(x) for positive normal x, from an 8-bit estimate and two refining steps: within 2.3 units in the
 * last place. Zeros and +infinity give NaN, as do negative numbers. */
KEL_RT_API kelRt_float32x2_t vinvsqrt_f32(kelRt_float32x2_t x);
KEL_RT_API kelRt_float32x4_t vinvsqrtq_f32(kelRt_float32x4_t x);

/** 1/x from an 8-bit estimate and two refining steps: within 2 units in the last place. Zeros and subnormals
 * give infinity of their sign; |x| >= 2^126 gives zero of its sign, which is also where the true result stops
 * being normal. */
KEL_RT_API kelRt_float32x2_t vinv_f32(kelRt_float32x2_t x);
KEL_RT_API kelRt_float32x4_t vinvq_f32(kelRt_float32x4_t x);

/**
 * (A + B x^2) + (C + D x^2) x^4 with A = c[0] + c[4] x, B = c[2] + c[6] x, C = c[1] + c[5] x, D = c[3] + c[7]
 * x: a polynomial of degree 7 in which c[4] belongs to x, c[1] to x^4.
 */
KEL_RT_API kelRt_float32x4_t vtaylor_polyq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* table);

/**
 * e^x for x from about -87.34 to 88.72; the error grows with |x|, from 2 units in the last place to about 70
 * at the ends. There is no clamp above: 0x42B17218 (88.7228) gives infinity, and larger inputs a NaN pattern,
 * not always the default one, up to 0x7FFFFFFF. From -87.34 down to -88.03 the bits are those of integer
 * steps, a subnormal that is not e^x; further down the result is +0. NaN gives NaN.
 */
KEL_RT_API kelRt_float32x4_t vexpq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table);

/** ln x for positive normal x, given a table that approximates ln on [1, 2). Zero, negative, subnormal,
 * infinite and NaN inputs are not looked for: they give numbers without meaning. */
KEL_RT_API kelRt_float32x4_t vlogq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* log_table);

/** tanh x; |x| is taken as 10 beyond 10. The error is absolute (about 2.5e-7): near zero few digits are
 * right, and near 1 a result may exceed it by a unit in the last place. */
KEL_RT_API kelRt_float32x4_t vtanhq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table);

/** x^n as e^(n ln x), for positive normal x; the limits of vlogq_f32 and vexpq_f32 apply to their parts. */
KEL_RT_API kelRt_float32x4_t vpowq_f32(kelRt_float32x4_t x, kelRt_float32x4_t n,
                                       const kelRt_float32x4_t* log_table,
                                       const kelRt_float32x4_t* exp_table);

/** sin x. The argument is reduced in single precision, so the error grows with |x|; beyond about 1e4 few
 * digits are right, beyond 6.7e9 none. sin of either zero is -0. */
KEL_RT_API kelRt_float32x4_t vsinq_f32(kelRt_float32x4_t x);
KEL_RT_API kelRt_float32x2_t vsin_f32(kelRt_float32x2_t x);

/* ------------------------------------------------------------ batch kernels -- */
/*
 * Blocks of four by the four-lane rules, and only blocks: n is rounded up to a multiple of four, so up to
 * three elements beyond n are READ AND WRITTEN. Give multiples of four or padded arrays. n = 0 touches
 * nothing. `out` may be one of the inputs.
 */

/** out = a * b */
KEL_RT_API void batchMulf(const float* a, const float* b, float* out, uint32_t n);
/** out = a + b */
KEL_RT_API void batchAddf(const float* a, const float* b, float* out, uint32_t n);
/** out = a - b */
KEL_RT_API void batchSubf(const float* a, const float* b, float* out, uint32_t n);
/** out = 1 - in */
KEL_RT_API void batchComplementf(const float* in, float* out, uint32_t n);
/** out = a * c + b * d; mind the pairs */
KEL_RT_API void batchDotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                                 uint32_t n);

/**
 * x / 2^exponent to the nearest integer, ties away from zero, for exponents 0 to 31: with an exponent per
 * lane
 * (_a), one for four lanes (_b), and for a single integer (_c). Beyond that range _a and _b shift by the low
 * byte of -exponent, taken as signed: a negative exponent shifts left and loses high bits; _c takes the low
 * five bits of the exponent.
 */
KEL_RT_API kelRt_int32x4_t rounding_divide_by_pow2_a(kelRt_int32x4_t x, kelRt_int32x4_t exponent);
KEL_RT_API kelRt_int32x4_t rounding_divide_by_pow2_b(kelRt_int32x4_t x, int32_t exponent);
KEL_RT_API int32_t rounding_divide_by_pow2_c(int32_t x, int32_t exponent);

/* ------------------------------------------------------------ array kernels -- */
/*
 * Element-wise routines and reductions over n elements. All return 1001 and check nothing. Whole blocks of
 * four elements (eight where an integer type is narrower than 32 bits) follow the four-lane rules above; the
 * up to three (seven) elements that remain are ordinary scalar arithmetic in the caller's floating-point
 * mode, without flushing, and use the C library's functions. The same input may therefore give other last
 * bits, or another special value, by where it lies in the array. Blocks raise no exception that the caller
 * has unmasked through the C library (feenableexcept). n = 0 writes nothing unless said otherwise.
 *
 * `out` may be the same array as an input of the same element type; other overlaps are not allowed.
 */

/** out = tanh(in); the blocks are vtanhq_f32. */
KEL_RT_API uint32_t kelRt_tanhf(const float* in, float* out, uint32_t n);

/** out = e^in; the blocks are vexpq_f32: from 88.73 a block gives NaN where the tail gives infinity. */
KEL_RT_API uint32_t kelRt_expf(const float* in, float* out, uint32_t n);

/** out = 1 / (1 + e^-in); a block takes vinvq_f32 for the division and gives NaN below about -88.72 where the
 * tail gives 0, and 0 already from about -87.34. */
KEL_RT_API uint32_t kelRt_sigmoidf(const float* in, float* out, uint32_t n);

/** *out = sum of in: lane j adds up elements 4k + j, the lanes are added in order, then the tail in order. 0
 * for n = 0. `out` must not lie in `in`. */
KEL_RT_API uint32_t kelRt_sumf(const float* in, float* out, uint32_t n);

/** out = in * scale */
KEL_RT_API uint32_t kelRt_scalef(const float* in, float* out, float scale, uint32_t n);
/** out = a * b */
KEL_RT_API uint32_t kelRt_mulf(const float* a, const float* b, float* out, uint32_t n);
/** out = a + b */
KEL_RT_API uint32_t kelRt_addf(const float* a, const float* b, float* out, uint32_t n);
/** out = a - b */
KEL_RT_API uint32_t kelRt_subf(const float* a, const float* b, float* out, uint32_t n);
/** out = 1 - in */
KEL_RT_API uint32_t kelRt_complementf(const float* in, float* out, uint32_t n);
/** out = a * c + b * d, both products rounded; mind the pairs */
KEL_RT_API uint32_t kelRt_dotproductf(const float* a, const float* b, const float* c, const float* d,
                                      float* out, uint32_t n);

/** out = (float)in * scale */
KEL_RT_API uint32_t kelRt_scaleI8toF(const int8_t* in, float* out, float scale, uint32_t n);
KEL_RT_API uint32_t kelRt_scaleI16toF(const int16_t* in, float* out, float scale, uint32_t n);
/** As above; the conversion rounds, so magnitudes above 2^24 are rounded twice. `out` may be `in`. */
KEL_RT_API uint32_t kelRt_scaleI32toF(const int32_t* in, float* out, float scale, uint32_t n);

/** out = in * scale, clamped to -128..127 and then truncated toward zero; NaN gives 0. `scale` is the
 * reciprocal of a quantisation step. */
KEL_RT_API uint32_t kelRt_scaleFtoI8(const float* in, int8_t* out, float scale, uint32_t n);

/**
 * *min and *max of in. Always READS FOUR ELEMENTS, and for n below 4 those beyond n take part in the result.
 * A NaN in a whole block takes its column (elements of the same index modulo 4, within the blocks) out of the
 * result; a NaN in the tail, or a later NaN in the first block alone, is passed over. in[0] being NaN gives
 * NaN for both.
 */
KEL_RT_API uint32_t kelRt_minMaxf(const float* in, float* min, float* max, uint32_t n);

/**
 * *out = sum of (in - mean)^2, divided by n, in the order of kelRt_sumf. The tail's squares are added in
 * double precision and rounded after each. NaN for n = 0. `out` must not lie in `in`.
 */
KEL_RT_API uint32_t kelRt_variancef(const float* in, float mean, float* out, uint32_t n);

/** out = beta + gamma * ((in - mean) / divisor), a true division in the blocks too (by their rules). */
KEL_RT_API uint32_t kelRt_normf(const float* in, const float* gamma, const float* beta, float mean,
                                float divisor, float* out, uint32_t n);

/* ------------------------------------------------------------ stopwatch -- */
/*
 * Microseconds by CLOCK_MONOTONIC, with statistics over samples. A sample is the sum of the laps between
 * starts and stops, or a number handed in. A record belongs to one thread at a time. Every function takes
 * null: those that return int32_t answer -1 instead of 0, those that return a number 0.
 */

struct simple_timer;

/** A new record, all zero; null when the heap is exhausted. */
KEL_RT_API struct simple_timer* init_simple_timer(void);
KEL_RT_API int32_t deinit_simple_timer(struct simple_timer* timer);

/** Starts a lap, or starts it over. */
KEL_RT_API int32_t simple_timer_start(struct simple_timer* timer);
/** Ends the lap, adds it to the open sample and returns it; 0 when not running. */
KEL_RT_API uint64_t simple_timer_stop(struct simple_timer* timer);
/** The lap so far, which goes on; 0 when not running. */
KEL_RT_API uint64_t simple_timer_get_elapsed_time(const struct simple_timer* timer);

/** Closes `sample` as a sample; the open one and a running lap stay as they are. */
KEL_RT_API int32_t simple_timer_set_sample(struct simple_timer* timer, uint64_t sample);
/** Closes the open sample and returns it; a running lap is dropped. */
KEL_RT_API uint64_t simple_timer_end_sample(struct simple_timer* timer);
/** Closes the open sample, a running lap included, and returns it. */
KEL_RT_API uint64_t simple_timer_end(struct simple_timer* timer);

/** Number of closed samples. */
KEL_RT_API uint32_t simple_timer_getSamples(const struct simple_timer* timer);
/** Their running average: each sample moves it by its difference over the count, truncated toward zero. */
KEL_RT_API uint64_t simple_timer_getAvg(const struct simple_timer* timer);
KEL_RT_API uint64_t simple_timer_getMax(const struct simple_timer* timer);
/** 0 means none yet: a sample of 0 is recorded as the minimum, and the next sample, whatever it is, replaces
 * it. */
KEL_RT_API uint64_t simple_timer_getMin(const struct simple_timer* timer);

/** Everything back to zero, a running lap and the open sample included. */
KEL_RT_API void simple_timer_clear(struct simple_timer* timer);

#ifdef __cplusplus
}
#endif

#endif
