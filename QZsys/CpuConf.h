#pragma once
// Processor configuration of the running machine.

/// Settles the processor configuration (the physical core count) once. Safe to
/// call repeatedly and from any thread; later calls do nothing.
void InitCPUconf();

/// True once `InitCPUconf` has run (the library calls it when it is loaded).
bool IsCPUconfSettled();
