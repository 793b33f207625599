// Processor features, read once per process with CPUID. Results are constant, so this is not
// state in any meaningful sense.
#pragma once

bool zycCpuHasSse();   // CPUID leaf 1, EDX bit 25
bool zycCpuHasSse2();  // CPUID leaf 1, EDX bit 26
bool zycCpuHasAvx2();  // CPUID leaf 7, EBX bit 5, with OS support for the YMM state
