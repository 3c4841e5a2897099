// A consumer of the installed library: the README's sample, checked.
#include <cstdio>

#include "loomwork/listtransform.h"

using namespace loomwork;

int main() {
  Array before{Value("a"), Value("b"), Value("c"), Value("d")};
  Array after{Value("b"), Value("c"), Value("d"), Value("a")};
  auto change = transformForTransitioningFromArrayToArrayObjectComparison(before, after,
                                                                          UGListTransformObjectComparisonEquality);
  const bool reached = arrayByApplyingTransform(before, *change) == after;
  const int64_t moved = change->transformIndex(0);
  std::printf("reached %s, a moved to %lld\n", reached ? "yes" : "no", static_cast<long long>(moved));
  return reached && moved == 3 ? 0 : 1;
}
