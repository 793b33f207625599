#include "base/cpuFeatures.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

bool zycCpuHasSse() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  return (d >> 25) & 1;
#else
  return false;
#endif
}

bool zycCpuHasSse2() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  return (d >> 26) & 1;
#else
  return false;
#endif
}

bool zycCpuHasAvx2() {
#if defined(__x86_64__) || defined(__i386__)
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}
