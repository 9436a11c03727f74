// A C++ host: whatever is wrong arrives as an exception, and nothing has to be released by hand.
#include <cstdio>
#include <type_traits>
#include <zorv_core.hpp>

template <class... Owners>
constexpr bool moveOnly = ((std::is_nothrow_move_constructible_v<Owners> &&
                            !std::is_copy_constructible_v<Owners>)&&...);
static_assert(moveOnly<zorv::ContextPtr, zorv::DeltaPtr, zorv::StreamPtr, zorv::UtterancePtr,
                       zorv::Motion, zorv::Expression>);

template <class Open>
void expectFailure(const char* what, const Open& open) {
    try {
        open();
        std::printf("%s opened\n", what);
    } catch (const zorv::Error& error) {
        if (*error.what() == '\0') std::printf("%s gave no reason\n", what);
    }
}

int main(int argc, char** argv) {
    const std::string dir = argc > 1 ? argv[1] : "/no such dir";
    expectFailure("stream", [&] { zorv::openStream(dir, dir); });
    expectFailure("delta model", [&] { zorv::openDelta(dir, dir); });
    expectFailure("motion engine", [&] { zorv::openMotion(dir); });
    expectFailure("expression engine", [&] { zorv::openExpression(dir); });
    expectFailure("utterance engine", [] { zorv::openUtterance(zorv::ContextPtr(), {}); });
    try {
        const zorv::ContextPtr context = zorv::openContext(dir);
        std::puts("opened");
    } catch (const zorv::Error& error) {
        std::puts(error.what());
    }
    return zorv_version() == ZORV_VERSION ? 0 : 1;
}
