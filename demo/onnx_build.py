"""A thin layer over onnx.helper for writing graphs as formulas.

    graph = GraphBuilder("name")
    x = graph.input("x", [1, 3])
    graph.output("y", graph.exp(x) * 2 + 1, [1, 3])
    graph.save(path)

Values overload + - * / and take numpy constants; constants and inputs are float32, and a
dimension is a number or, where it varies, a name.
Equal constants are stored once, so repeated indices and scalars cost nothing.
"""
import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 16        # the first with GridSample
IR_VERSION = 8


class Value:
    """A named tensor of a graph under construction."""

    __array_ufunc__ = None    # numpy arrays on the left leave the arithmetic to this class

    def __init__(self, graph, name):
        self.graph, self.name = graph, name

    def __add__(self, other): return self.graph.op("Add", self, other)
    def __radd__(self, other): return self.graph.op("Add", other, self)
    def __sub__(self, other): return self.graph.op("Sub", self, other)
    def __rsub__(self, other): return self.graph.op("Sub", other, self)
    def __mul__(self, other): return self.graph.op("Mul", self, other)
    def __rmul__(self, other): return self.graph.op("Mul", other, self)
    def __truediv__(self, other): return self.graph.op("Div", self, other)
    def __rtruediv__(self, other): return self.graph.op("Div", other, self)
    def __neg__(self): return self.graph.op("Neg", self)


class GraphBuilder:
    """Collects nodes and constants; see the module's text for use."""

    def __init__(self, name):
        self.name = name
        self.nodes, self.inputs, self.outputs, self.constants = [], [], [], {}

    def input(self, name, shape):
        self.inputs.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, shape))
        return Value(self, name)

    def output(self, name, value, shape, dtype=TensorProto.FLOAT):
        self.nodes.append(helper.make_node("Identity", [value.name], [name], name=f"n_{name}"))
        self.outputs.append(helper.make_tensor_value_info(name, dtype, shape))

    def constant(self, array, dtype=np.float32):
        array = np.asarray(array, dtype, order="C")
        key = (array.dtype.str, array.shape, array.tobytes())
        if key not in self.constants:
            self.constants[key] = numpy_helper.from_array(array, f"c{len(self.constants)}")
        return Value(self, self.constants[key].name)

    def op(self, kind, *inputs, outputs=1, **attributes):
        """Append a node; inputs are Values, numbers, arrays or None for an absent one."""
        names = ["" if i is None else (i if isinstance(i, Value) else self.constant(i)).name for i in inputs]
        results = [f"v{len(self.nodes)}_{k}" for k in range(outputs)]
        self.nodes.append(helper.make_node(kind, names, results, name=f"n{len(self.nodes)}", **attributes))
        values = [Value(self, name) for name in results]
        return values[0] if outputs == 1 else values

    # Frequent operators, by the names of numpy.
    def exp(self, x): return self.op("Exp", x)
    def abs(self, x): return self.op("Abs", x)
    def sqrt(self, x): return self.op("Sqrt", x)
    def minimum(self, a, b): return self.op("Min", a, b)
    def maximum(self, a, b): return self.op("Max", a, b)
    def clip(self, x, low, high): return self.op("Clip", x, np.float32(low), np.float32(high))
    def matmul(self, a, b): return self.op("MatMul", a, b)
    def concat(self, values, axis): return self.op("Concat", *values, axis=axis)
    def transpose(self, x, order): return self.op("Transpose", x, perm=order)

    def mix(self, a, b, t):
        """a where t = 0, b where t = 1."""
        return a + (b - a) * t

    def smooth(self, x):
        """Smoothstep of x over [0, 1]."""
        t = self.clip(x, 0, 1)
        return t * t * (3.0 - 2.0 * t)

    def reshape(self, x, shape):
        return self.op("Reshape", x, self.constant(shape, np.int64))

    def slice(self, x, axis, start, stop):
        return self.op("Slice", x, *(self.constant([v], np.int64) for v in (start, stop, axis)))

    def gather(self, x, indices, axis):
        return self.op("Gather", x, self.constant(indices, np.int64), axis=axis)

    def resize(self, x, shape):
        """Bilinear resampling to `shape`, pixel areas aligned."""
        return self.op("Resize", x, None, None, self.constant(shape, np.int64), mode="linear",
                       coordinate_transformation_mode="half_pixel")

    def grid_sample(self, x, grid):
        """Bilinear sampling of x [B, C, H, W] at grid [B, H, W, 2], edges repeated."""
        return self.op("GridSample", x, grid, mode="bilinear", padding_mode="border", align_corners=0)

    def model(self):
        graph = helper.make_graph(self.nodes, self.name, self.inputs, self.outputs, list(self.constants.values()))
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="zorv demo")
        model.ir_version = IR_VERSION
        onnx.checker.check_model(model)
        return model

    def save(self, path):
        onnx.save(self.model(), str(path))
