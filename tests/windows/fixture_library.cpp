// A tiny DLL for the run-time binding tests of the Windows form.
extern "C" __declspec(dllexport) int fixture_answer() { return 42; }
