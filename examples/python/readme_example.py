import numpy as np, corvane_window as cw

class Follow(cw.LiftedMpcSolveSession):  # commands the reference as it is; runs on the worker
    def Prepare(self): pass
    def Finalize(self): pass
    def Solve(self, request):
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)

ref = cw.AppendableReferenceBuffer(joint_count=2)  # 5 samples a window, 20 ahead, 1 kHz, from 0
buffer = cw.AppendableWindowBuffer(cw.AppendableLiftedMpcWindowProducer(Follow(), ref, 5, 20, 1e-3, 0), ref)
buffer.Start(); buffer.AppendReference(np.arange(24.0).reshape(12, 2)); buffer.Finish()
while (window := buffer.Pop(timeout=1.0)) is not None: print(window.start_index, window.positions[-1])
