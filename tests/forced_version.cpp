// Takes the place of the compiler's look at the processor: the program that it is linked into finds
// the features of one version of the hot loops (FORCED_FEATURES), whatever the processor has.
//
// The names and bits are those of gcc's runtime library, which no longer change: every object that
// chooses between versions has them inside.
constexpr unsigned avx2 = 1u << 10, avx512f = 1u << 15 | avx2, baseline = 0;

extern "C" {
struct {
  unsigned vendor, type, subtype, features[1];
} __cpu_model = {0, 0, 0, {FORCED_FEATURES}};
unsigned __cpu_features2[8];
int __cpu_indicator_init() { return 0; }
}
