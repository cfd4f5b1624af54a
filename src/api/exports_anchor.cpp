// The shared library takes all its code from the engine archive; this unit
// only gives the target a source of its own.
namespace lumbra::api {
[[maybe_unused]] static const char kLibraryName[] = "orx-lumbra-c-4.1";
}
