"""Why an operator of ONNX is refused that no function lowers."""
import onnx.defs

REASONS = {
    "no operator of the library gives a square root, a logarithm, a power or a circular function": """
        Acos Acosh Asin Asinh Atan Atanh BlackmanWindow Cos Cosh DFT Erf HammingWindow HannWindow Log LogSoftmax
        MelWeightMatrix Mish Pow ReduceL2 ReduceLogSum ReduceLogSumExp STFT Sin Sinh Softplus Sqrt Tan LpNormalization
        LpPool SoftmaxCrossEntropyLoss MeanVarianceNormalization""",
    "an exponential outside of a softmax, a sigmoid or a hyperbolic tangent is nothing that the library's operators "
    "give over their whole range": "Celu Elu Exp Selu",
    "what it gives are truth values or positions, and the library's operators give floats": """
        And ArgMax ArgMin Equal Greater GreaterOrEqual IsInf IsNaN Less LessOrEqual Not Or Xor TopK Hardmax""",
    "no operator of the library writes to a place or reads from one that data decide, but rows of a table": """
        Compress GridSample MaxRoiAlign MaxUnpool NonMaxSuppression NonZero ReverseSequence RoiAlign Scatter
        ScatterElements ScatterND Unique""",
    "which contexts run has to be known when a job is written": "If Loop Scan",
    "sequences, optional values and texts are no tensors in memory": """
        ConcatFromSequence Optional OptionalGetElement OptionalHasElement SequenceAt SequenceConstruct SequenceEmpty
        SequenceErase SequenceInsert SequenceLength SequenceMap SplitToSequence StringNormalizer TfIdfVectorizer""",
    "no operator of the library makes random numbers": """
        Bernoulli Multinomial RandomNormal RandomNormalLike RandomUniform RandomUniformLike""",
    "the library's operators compute in float32 alone": """
        BitShift BitwiseAnd BitwiseNot BitwiseOr BitwiseXor ConvInteger MatMulInteger Mod QLinearConv QLinearMatMul""",
    "it is for training": "Adagrad Adam Gradient Momentum NegativeLogLikelihoodLoss",
}
_BY_OPERATOR = {operator: reason for reason, operators in REASONS.items() for operator in operators.split()}


def reason(operator: str, opset: int) -> str:
    if operator in _BY_OPERATOR:
        return _BY_OPERATOR[operator]
    if onnx.defs.has(operator):
        return "it is not lowered"
    return unknown(opset)


def unknown(opset: int) -> str:
    return f"there is no operator of this name in ONNX's operator set {opset}"
