#include "support/own_allocations.h"

#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "common/fault.h"
#include "support/runtime_leaks.h"

namespace zorv::test {
namespace {

const OrtApi* runtime = nullptr;
std::atomic<RuntimeCalls::Refuses> refusesAllocation{nullptr};

/// Within a call of the runtime.
class Away {
  public:
    Away() : before_(std::exchange(inRuntime, true)) {}
    ~Away() { inRuntime = before_; }
    Away(const Away&) = delete;
    Away& operator=(const Away&) = delete;

  private:
    const bool before_;
    const fault::InLibrary away_{false};
};

template <auto Entry>
struct Id {};
template <auto A, auto B>
constexpr bool kSame = std::is_same_v<Id<A>, Id<B>>;

template <auto Entry, class Result, class... Arguments>
Result ORT_API_CALL marked(Arguments... arguments) noexcept {
    const Away away;
    std::optional<RuntimeLeaksStatus> leaks;
    if constexpr (kSame<Entry, &OrtApi::CreateStatus>) leaks.emplace();
    if constexpr (kSame<Entry, &OrtApi::Run>) ++modelRuns;
    return (runtime->*Entry)(arguments...);
}

template <auto Entry, class Result, class... Arguments>
void markEntry(Result (*&entry)(Arguments...)) {
    entry = marked<Entry, Result, Arguments...>;
}
template <auto Entry, class Result, class... Arguments>
void markEntry(Result (*&entry)(Arguments...) noexcept) {
    entry = marked<Entry, Result, Arguments...>;
}

template <auto... Entries>
void mark(OrtApi& api) {
    (markEntry<Entries>(api.*Entries), ...);
}

/// Those that the library uses.
void markAll(OrtApi& api) {
    using A = OrtApi;
    mark<&A::CreateEnv, &A::ReleaseEnv, &A::CreateSessionOptions, &A::ReleaseSessionOptions,
         &A::SetIntraOpNumThreads, &A::SetInterOpNumThreads, &A::SetSessionGraphOptimizationLevel,
         &A::AddSessionConfigEntry, &A::AddCustomOpDomain, &A::CreateCustomOpDomain,
         &A::CustomOpDomain_Add, &A::SessionOptionsAppendExecutionProvider>(api);
    mark<&A::CreateSession, &A::CreateSessionFromArray, &A::ReleaseSession,
         &A::SessionGetInputCount, &A::SessionGetOutputCount, &A::SessionGetInputName,
         &A::SessionGetOutputName, &A::SessionGetInputTypeInfo, &A::SessionGetOutputTypeInfo,
         &A::GetAllocatorWithDefaultOptions, &A::AllocatorFree>(api);
    mark<&A::GetOnnxTypeFromTypeInfo, &A::CastTypeInfoToTensorInfo, &A::ReleaseTypeInfo,
         &A::GetTensorTypeAndShape, &A::ReleaseTensorTypeAndShapeInfo, &A::GetDimensionsCount,
         &A::GetDimensions, &A::GetTensorElementType, &A::GetTensorShapeElementCount>(api);
    mark<&A::CreateCpuMemoryInfo, &A::ReleaseMemoryInfo, &A::CreateTensorWithDataAsOrtValue,
         &A::ReleaseValue, &A::IsTensor, &A::GetTensorMutableData>(api);
    mark<&A::Run, &A::CreateRunOptions, &A::ReleaseRunOptions, &A::AddRunConfigEntry,
         &A::RunOptionsSetTerminate, &A::RunOptionsUnsetTerminate, &A::CreateStatus,
         &A::ReleaseStatus, &A::GetErrorCode, &A::GetErrorMessage>(api);
    mark<&A::KernelContext_GetInput, &A::KernelContext_GetOutput, &A::KernelInfoGetAttribute_int64,
         &A::KernelInfoGetAttributeArray_int64, &A::KernelInfo_GetInputTypeInfo>(api);
    mark<&A::ShapeInferContext_GetInputCount, &A::ShapeInferContext_GetInputTypeShape,
         &A::ShapeInferContext_SetOutputTypeShape, &A::CreateTensorTypeAndShapeInfo,
         &A::SetTensorElementType, &A::SetDimensions, &A::GetSymbolicDimensions,
         &A::SetSymbolicDimensions>(api);
}

/// Where the model runtime's library lies.
std::pair<std::uintptr_t, std::uintptr_t> runtimeRange() {
    std::pair<std::uintptr_t, std::uintptr_t> range;
    const auto find = [](dl_phdr_info* library, std::size_t, void* found) {
        if (!std::strstr(library->dlpi_name, "onnxruntime")) return 0;
        std::uintptr_t end = 0;
        for (ElfW(Half) i = 0; i < library->dlpi_phnum; ++i) {
            const ElfW(Phdr)& part = library->dlpi_phdr[i];
            if (part.p_type == PT_LOAD) end = std::max(end, part.p_vaddr + part.p_memsz);
        }
        *static_cast<decltype(range)*>(found) = {library->dlpi_addr, library->dlpi_addr + end};
        return 1;
    };
    ::dl_iterate_phdr(find, &range);
    return range;
}

}  // namespace

bool isRuntimeCode(const void* address) {
    static const std::pair<std::uintptr_t, std::uintptr_t> range = runtimeRange();
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    return at >= range.first && at < range.second;
}

RuntimeCalls::RuntimeCalls(Refuses refuses) : api_(Ort::GetApi()) {
    runtime = &Ort::GetApi();
    markAll(api_);
    Ort::Global<void>::api_ = &api_;
    refusesAllocation = refuses;
}

RuntimeCalls::~RuntimeCalls() {
    refusesAllocation = nullptr;
    Ort::Global<void>::api_ = runtime;
}

}  // namespace zorv::test

namespace {

constexpr auto kPlain = std::align_val_t{alignof(std::max_align_t)};

void* allocateOrNull(std::size_t size, std::align_val_t alignment, const void* caller) noexcept {
    const auto refuses = zorv::test::refusesAllocation.load(std::memory_order_acquire);
    if (refuses && refuses(caller)) return nullptr;
    void* memory = nullptr;
    const int result =
        ::posix_memalign(&memory, static_cast<std::size_t>(alignment), size ? size : 1);
    return result == 0 ? memory : nullptr;
}

void* allocate(std::size_t size, std::align_val_t alignment, const void* caller) {
    void* memory = allocateOrNull(size, alignment, caller);
    if (!memory) throw std::bad_alloc();
    return memory;
}

}  // namespace

// All forms, since a sanitizer brings its own of those that are missing, and releases must match.
// Not inlined, or the compiler takes an allocation and its release for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    return allocate(size, kPlain, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, alignment, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, kPlain, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment,
                                     const std::nothrow_t&) noexcept {
    return allocateOrNull(size, alignment, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return allocate(size, kPlain, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate(size, alignment, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, kPlain, __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new[](std::size_t size, std::align_val_t alignment,
                                       const std::nothrow_t&) noexcept {
    return allocateOrNull(size, alignment, __builtin_return_address(0));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t,
                                       const std::nothrow_t&) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::align_val_t,
                                         const std::nothrow_t&) noexcept {
    std::free(memory);
}
