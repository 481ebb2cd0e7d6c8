// A tiny DLL for the run-time binding tests of the Windows form.
#ifndef FIXTURE_ANSWER
#define FIXTURE_ANSWER 42
#endif
extern "C" __declspec(dllexport) int fixture_answer() { return FIXTURE_ANSWER; }
