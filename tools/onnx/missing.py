"""Why an operator of ONNX is refused that no function lowers."""
import onnx.defs

REASONS = {
    "no operator of the library gives a square root, a logarithm, a power or a circular function": """
        Acos Acosh Asin Asinh Atan Atanh BlackmanWindow Cos Cosh DFT Erf HammingWindow HannWindow LRN Log LogSoftmax
        MelWeightMatrix Mish Pow ReduceLogSum ReduceLogSumExp STFT Sin Sinh SoftmaxCrossEntropyLoss Softplus Sqrt
        Tan""",
    "no operator of the library gives an exponential over its whole range": "Celu Elu Exp Selu",
    "it gives positions, 64-bit integers, which no operator of the library makes": "ArgMax ArgMin NonZero TopK Unique",
    "what data decide can choose rows of a table, but not where something is written or how much there is": """
        Compress GridSample MaxRoiAlign MaxUnpool NonMaxSuppression ReverseSequence RoiAlign Scatter ScatterElements
        ScatterND""",
    "which contexts run has to be known when a job is written": "If Loop Scan",
    "sequences, optional values and texts are no tensors in memory": """
        ConcatFromSequence Optional OptionalGetElement OptionalHasElement SequenceAt SequenceConstruct SequenceEmpty
        SequenceErase SequenceInsert SequenceLength SequenceMap SplitToSequence StringNormalizer TfIdfVectorizer""",
    "no operator of the library makes random numbers": """
        Bernoulli Multinomial RandomNormal RandomNormalLike RandomUniform RandomUniformLike""",
    "arithmetic is lowered for float32 alone": """
        BitShift BitwiseAnd BitwiseNot BitwiseOr BitwiseXor ConvInteger MatMulInteger QLinearConv QLinearMatMul""",
    "it is for training": "NegativeLogLikelihoodLoss",
}
_BY_OPERATOR = {operator: reason for reason, operators in REASONS.items() for operator in operators.split()}


def reason(operator: str, opset: int) -> str:
    if operator in _BY_OPERATOR:
        return _BY_OPERATOR[operator]
    if onnx.defs.has(operator):
        return "it may be expressible, and is not lowered so far"
    return unknown(opset)


def unknown(opset: int) -> str:
    return f"there is no operator of this name in ONNX's operator set {opset}"
