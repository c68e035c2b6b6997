# Flags of every target of ours. Rounding is part of the results: products are never fused into
# sums and nothing is reassociated, so that every word size, thread count and vector width agrees.
function(ctessel_compile_options target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  target_compile_options(${target} PRIVATE
    -ffp-contract=off -fno-math-errno -fno-trapping-math -Wall -Wextra -Wshadow -Wconversion
    # A simd loop may stay scalar in odd builds; gcc's -Wconversion leaves signs to -Wsign-conversion.
    "$<$<CXX_COMPILER_ID:Clang>:-Wno-pass-failed;-Wno-sign-conversion>"
    # The 32-bit system interface aligns the stack to 4 bytes, and old hosts do no more than that.
    $<$<EQUAL:${CMAKE_SIZEOF_VOID_P},4>:-mstackrealign>
    $<$<BOOL:${CTESSEL_WERROR}>:-Werror>)
  # Safe only beside -ffp-contract=off: the wide versions have fused instructions at hand.
  target_compile_definitions(${target} PRIVATE CTESSEL_DISPATCH)
endfunction()
