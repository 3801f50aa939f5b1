#pragma once

#include "bench/Suite.h"

// What is measured, a file each: SettingsTextBench.cpp and so on.
namespace tavix::bench {

void AddSettingsTextBenches(Suite& suite);
void AddDocumentBenches(Suite& suite);
void AddMatchBenches(Suite& suite);
void AddStoreBenches(Suite& suite);
void AddDispatchBenches(Suite& suite);
void AddRoundTripBenches(Suite& suite);
void AddThroughputBenches(Suite& suite);
void AddLoopsBenches(Suite& suite);
void AddDurableBenches(Suite& suite);
void AddUnderMergeBenches(Suite& suite);
void AddLoadBenches(Suite& suite);
void AddNotifyBenches(Suite& suite);
void AddCInterfaceBenches(Suite& suite);
void AddPythonBenches(Suite& suite);
void AddFootprintBenches(Suite& suite);
void AddLayersBenches(Suite& suite);
void AddCommandBenches(Suite& suite);
void AddBridgeBenches(Suite& suite);
void AddWebBenches(Suite& suite);

}  // namespace tavix::bench
