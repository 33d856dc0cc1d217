"""Python bindings for libquorvane through ctypes (standard library only).

    import quorvane
    with quorvane.Context() as ctx:
        doc = ctx.search([1, 0], [[1, 0], [0, 1], [1, 1]], k=2)
        doc["top_k"][0]["idx"]   # -> 0

The shared library is found through the QVN_LIBRARY environment variable, next
to this package, or by the system loader ("libquorvane.so.2").
"""

import ctypes
import ctypes.util
import json
import os
from array import array

__all__ = [
    "QuorvaneError", "Context", "version", "edition", "storage", "abi_version",
    "vector_dot", "vector_l2_sq", "vector_l2", "vector_cosine_similarity",
    "vector_cosine_distance", "vector_norm", "vector_normalize", "vector_add",
    "vector_sub", "vector_scale", "vector_weighted_concat", "dfa", "drift",
    "boxcount", "morphological_complexity", "vascular_network", "cortical_folding",
    "nerve_plexus_metric", "optimize_portfolio",
    "FEEDBACK_GRADED", "FEEDBACK_FULL", "FEEDBACK_NEGATIVE",
]

FEEDBACK_GRADED = 0
FEEDBACK_FULL = 1
FEEDBACK_NEGATIVE = 2

_STATUS_TEXT = {
    -1: "invalid argument",
    -2: "unparsable text",
    -3: "dimension mismatch",
    -4: "out of memory",
    -5: "external operation failed",
    -46: "no reasoning table attached",
}


class QuorvaneError(Exception):
    """A call returned a negative status; .status holds it, .message the text."""

    def __init__(self, status, message=""):
        self.status = status
        self.message = message or _STATUS_TEXT.get(status, "unknown status")
        super().__init__("%s (status %d)" % (self.message, status))


def _load():
    candidates = []
    env = os.environ.get("QVN_LIBRARY")
    if env:
        candidates.append(env)
    here = os.path.dirname(os.path.abspath(__file__))
    candidates += [os.path.join(here, "libquorvane.so"), "libquorvane.so.2"]
    found = ctypes.util.find_library("quorvane")
    if found:
        candidates.append(found)
    errors = []
    for path in candidates:
        try:
            return ctypes.CDLL(path)
        except OSError as e:
            errors.append(str(e))
    raise OSError("libquorvane not found; set QVN_LIBRARY (%s)" % "; ".join(errors))


_lib = _load()

_c = ctypes
_sz = _c.c_size_t
_i32 = _c.c_int32
_u32 = _c.c_uint32
_u64 = _c.c_uint64
_dp = _c.POINTER(_c.c_double)
_fp = _c.POINTER(_c.c_float)
_up = _c.POINTER(_c.c_uint64)
_vp = _c.c_void_p


class DiversifyParams(ctypes.Structure):
    _fields_ = [("dq_window", _u32), ("dq_target", _c.c_double),
                ("shadow_sigma", _c.c_double), ("repulsion_strength", _c.c_double),
                ("shadow_capacity", _u32), ("aux_capacity", _u32)]


def _sig(name, restype, *argtypes):
    fn = getattr(_lib, name)
    fn.restype = restype
    fn.argtypes = list(argtypes)
    return fn


_sig("qvn_new_minimal", _vp)
_sig("qvn_new_ostrany", _vp, _vp, _vp)
_sig("qvn_free", None, _vp)
_sig("qvn_release", None, _vp)
_sig("qvn_last_error", _c.c_char_p, _vp)
for _n in ("qvn_edition", "qvn_storage", "qvn_version", "qvn_abi_version"):
    _sig(_n, _c.c_char_p)
_sig("qvn_entropy_set_source", _i32, _vp, _u32, _u64)
_sig("qvn_entropy_active_source", _u32, _vp)
_sig("qvn_search", _i32, _vp, _c.c_char_p, _sz, _c.c_char_p, _sz, _i32, _c.c_char_p, _sz,
     _c.POINTER(_c.c_char_p), _c.POINTER(_sz))
_sig("qvn_search_ptr", _i32, _vp, _dp, _sz, _sz, _dp, _sz, _i32, _c.c_char_p, _sz,
     _c.POINTER(_c.c_char_p), _c.POINTER(_sz))
for _n in ("qvn_vector_dot", "qvn_vector_l2_sq", "qvn_vector_l2",
           "qvn_vector_cosine_similarity", "qvn_vector_cosine_distance",
           "qvn_vector_add", "qvn_vector_sub"):
    _sig(_n, _i32, _fp, _fp, _sz, _fp)
_sig("qvn_vector_norm", _i32, _fp, _sz, _fp)
_sig("qvn_vector_normalize", _i32, _fp, _sz, _fp)
_sig("qvn_vector_scale", _i32, _fp, _sz, _fp, _c.c_float)
_sig("qvn_vector_weighted_concat", _i32, _fp, _sz, _fp, _sz, _fp, _c.c_float, _c.c_float)
_sig("qvn_diversify_enable", _i32, _vp)
_sig("qvn_diversify_disable", _i32, _vp)
_sig("qvn_diversify_set_params", _i32, _vp, _c.POINTER(DiversifyParams))
_sig("qvn_diversify_get_params", _i32, _vp, _c.POINTER(DiversifyParams))
_sig("qvn_diversify_current_dq", _c.c_double, _vp)
_sig("qvn_diversify_overhead_p99_us", _c.c_double, _vp)
_sig("qvn_feedback_report", _i32, _vp, _u64, _u32, _u32)
_sig("qvn_load_reasoning", _i32, _vp, _c.c_char_p)
_sig("qvn_dimension_dfa", _i32, _dp, _sz, _dp)
_sig("qvn_dimension_drift", _i32, _dp, _sz, _sz, _dp, _dp, _dp)
_sig("qvn_dimension_boxcount", _i32, _dp, _sz, _sz, _dp)
_sig("qvn_vascular_network", _i32, _dp, _sz, _up, _dp, _sz, _dp, _dp, _dp)
_sig("qvn_cortical_folding", _i32, _dp, _sz, _up, _sz, _dp, _dp, _dp)
_sig("qvn_nerve_plexus_metric", _i32, _dp, _sz, _sz, _up, _sz, _dp, _dp, _dp)
_sig("qvn_morphological_complexity", _i32, _dp, _sz, _sz, _dp, _dp)
_sig("qvn_optimize_portfolio_ex", _i32, _dp, _dp, _sz, _sz, _u64, _i32, _i32, _dp, _dp)


def version():
    return _lib.qvn_version().decode()


def abi_version():
    return _lib.qvn_abi_version().decode()


def edition():
    return _lib.qvn_edition().decode()


def storage():
    return _lib.qvn_storage().decode()


# ---- conversions -------------------------------------------------------

def _flatten(rows):
    """Rows (a sequence of sequences) or a flat sequence -> (flat list, n, dim)."""
    rows = list(rows)
    if rows and not isinstance(rows[0], (int, float)):
        dims = {len(r) for r in rows}
        if len(dims) != 1:
            raise ValueError("rows have different lengths: %s" % sorted(dims))
        dim = dims.pop()
        return [float(x) for r in rows for x in r], len(rows), dim
    return [float(x) for x in rows], (1 if rows else 0), len(rows)


def _doubles(values):
    buf = array("d", values)
    addr, n = buf.buffer_info()
    return buf, (ctypes.cast(addr, _dp) if n else None), n


def _floats(values):
    buf = array("f", values)
    addr, n = buf.buffer_info()
    return buf, (ctypes.cast(addr, _fp) if n else None), n


def _u64s(values):
    buf = array("Q", [int(v) for v in values])
    addr, n = buf.buffer_info()
    return buf, (ctypes.cast(addr, _up) if n else None), n


def _check(status):
    if status != 0:
        raise QuorvaneError(status)


# ---- Context -----------------------------------------------------------

class Context:
    """A search Context. ostrany=True enables diversification, feedback and
    the entropy setting. Use as a context manager or call close()."""

    def __init__(self, ostrany=False):
        self._ptr = _lib.qvn_new_ostrany(None, None) if ostrany else _lib.qvn_new_minimal()
        if not self._ptr:
            raise MemoryError("cannot create a quorvane Context")

    def close(self):
        if self._ptr:
            _lib.qvn_free(self._ptr)
            self._ptr = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        self.close()

    @property
    def last_error(self):
        return _lib.qvn_last_error(self._ptr).decode("utf-8", "replace")

    def _raise(self, status):
        raise QuorvaneError(status, self.last_error)

    def search(self, query, corpus=None, k=1, params=None, **kw):
        """Searches arrays of numbers; returns the result document as a dict.
        params is a dict (or JSON text) of search parameters; keyword
        arguments are added to it."""
        q_buf, q_ptr, q_dim = _doubles(float(x) for x in query)
        flat, n_rows, dim = _flatten(corpus) if corpus is not None else ([], 0, 0)
        c_buf, c_ptr, _ = _doubles(flat)
        ptext = self._params_text(params, kw)
        out, out_len = ctypes.c_char_p(), _sz()
        rc = _lib.qvn_search_ptr(self._ptr, c_ptr, n_rows, dim, q_ptr, q_dim, int(k),
                                 ptext, len(ptext) if ptext else 0,
                                 ctypes.byref(out), ctypes.byref(out_len))
        del q_buf, c_buf
        if rc != 0:
            self._raise(rc)
        return json.loads(ctypes.string_at(out, out_len.value).decode())

    def search_text(self, query_text, corpus_text=None, k=1, params=None, **kw):
        """Searches text input ("1,2,3", "1,2;3,4", "[[1,2],[3,4]]")."""
        q = query_text.encode() if isinstance(query_text, str) else bytes(query_text)
        c = corpus_text.encode() if isinstance(corpus_text, str) else corpus_text
        ptext = self._params_text(params, kw)
        out, out_len = ctypes.c_char_p(), _sz()
        rc = _lib.qvn_search(self._ptr, c, len(c) if c else 0, q, len(q), int(k),
                             ptext, len(ptext) if ptext else 0,
                             ctypes.byref(out), ctypes.byref(out_len))
        if rc != 0:
            self._raise(rc)
        return json.loads(ctypes.string_at(out, out_len.value).decode())

    @staticmethod
    def _params_text(params, kw):
        if isinstance(params, (str, bytes)):
            if kw:
                raise ValueError("give parameters either as text or as keywords")
            return params.encode() if isinstance(params, str) else params
        merged = dict(params or {})
        merged.update(kw)
        return json.dumps(merged).encode() if merged else None

    def release(self):
        _lib.qvn_release(self._ptr)

    # diversification and feedback (ostrany Contexts)
    def diversify_enable(self):
        _check(_lib.qvn_diversify_enable(self._ptr))

    def diversify_disable(self):
        _check(_lib.qvn_diversify_disable(self._ptr))

    def diversify_params(self):
        p = DiversifyParams()
        _check(_lib.qvn_diversify_get_params(self._ptr, ctypes.byref(p)))
        return {name: getattr(p, name) for name, _ in DiversifyParams._fields_}

    def set_diversify_params(self, **changes):
        current = self.diversify_params()
        unknown = set(changes) - set(current)
        if unknown:
            raise TypeError("unknown diversify parameters: %s" % sorted(unknown))
        current.update(changes)
        p = DiversifyParams(**current)
        _check(_lib.qvn_diversify_set_params(self._ptr, ctypes.byref(p)))

    @property
    def dq(self):
        return _lib.qvn_diversify_current_dq(self._ptr)

    @property
    def overhead_p99_us(self):
        return _lib.qvn_diversify_overhead_p99_us(self._ptr)

    def feedback(self, idx, kind=FEEDBACK_NEGATIVE, value=0):
        _check(_lib.qvn_feedback_report(self._ptr, int(idx), int(kind), int(value)))

    def set_entropy_source(self, source, value=0):
        _check(_lib.qvn_entropy_set_source(self._ptr, int(source), int(value)))

    @property
    def entropy_source(self):
        return _lib.qvn_entropy_active_source(self._ptr)

    def load_reasoning(self, path):
        rc = _lib.qvn_load_reasoning(self._ptr, os.fsencode(path))
        if rc != 0:
            self._raise(rc)


# ---- float32 vector kernels -------------------------------------------

def _pair(name, a, b):
    a_buf, a_ptr, n = _floats(a)
    b_buf, b_ptr, nb = _floats(b)
    if n != nb:
        raise ValueError("vectors differ in length: %d != %d" % (n, nb))
    out = ctypes.c_float()
    _check(getattr(_lib, name)(a_ptr, b_ptr, n, ctypes.byref(out)))
    return out.value


def vector_dot(a, b):
    return _pair("qvn_vector_dot", a, b)


def vector_l2_sq(a, b):
    return _pair("qvn_vector_l2_sq", a, b)


def vector_l2(a, b):
    return _pair("qvn_vector_l2", a, b)


def vector_cosine_similarity(a, b):
    return _pair("qvn_vector_cosine_similarity", a, b)


def vector_cosine_distance(a, b):
    return _pair("qvn_vector_cosine_distance", a, b)


def vector_norm(v):
    buf, ptr, n = _floats(v)
    out = ctypes.c_float()
    _check(_lib.qvn_vector_norm(ptr, n, ctypes.byref(out)))
    return out.value


def _elementwise(name, a, b):
    a_buf, a_ptr, n = _floats(a)
    b_buf, b_ptr, nb = _floats(b)
    if n != nb:
        raise ValueError("vectors differ in length: %d != %d" % (n, nb))
    out = array("f", bytes(4 * n))
    _check(getattr(_lib, name)(a_ptr, b_ptr, n, ctypes.cast(out.buffer_info()[0], _fp)))
    return out.tolist()


def vector_add(a, b):
    return _elementwise("qvn_vector_add", a, b)


def vector_sub(a, b):
    return _elementwise("qvn_vector_sub", a, b)


def vector_normalize(v):
    buf, ptr, n = _floats(v)
    out = array("f", bytes(4 * n))
    _check(_lib.qvn_vector_normalize(ptr, n, ctypes.cast(out.buffer_info()[0], _fp)))
    return out.tolist()


def vector_scale(v, factor):
    buf, ptr, n = _floats(v)
    out = array("f", bytes(4 * n))
    _check(_lib.qvn_vector_scale(ptr, n, ctypes.cast(out.buffer_info()[0], _fp), factor))
    return out.tolist()


def vector_weighted_concat(a, b, wa=1.0, wb=1.0):
    a_buf, a_ptr, na = _floats(a)
    b_buf, b_ptr, nb = _floats(b)
    out = array("f", bytes(4 * (na + nb)))
    _check(_lib.qvn_vector_weighted_concat(a_ptr, na, b_ptr, nb,
                                           ctypes.cast(out.buffer_info()[0], _fp), wa, wb))
    return out.tolist()


# ---- metrics and portfolio --------------------------------------------

def dfa(series):
    """DFA scaling exponent alpha of a series (at least 24 values)."""
    buf, ptr, n = _doubles(series)
    out = ctypes.c_double()
    _check(_lib.qvn_dimension_dfa(ptr, n, ctypes.byref(out)))
    return out.value


def drift(series, window):
    """(drift, alpha_recent, alpha_baseline) of the last `window` samples."""
    buf, ptr, n = _doubles(series)
    d, r, b = ctypes.c_double(), ctypes.c_double(), ctypes.c_double()
    _check(_lib.qvn_dimension_drift(ptr, n, int(window), ctypes.byref(d), ctypes.byref(r),
                                    ctypes.byref(b)))
    return d.value, r.value, b.value


def boxcount(points):
    """Box-counting dimension of a point cloud given as rows."""
    flat, n, d = _flatten(points)
    buf, ptr, _ = _doubles(flat)
    out = ctypes.c_double()
    _check(_lib.qvn_dimension_boxcount(ptr, n, d, ctypes.byref(out)))
    return out.value


def morphological_complexity(points):
    """(box-counting dimension, lacunarity) of a point cloud given as rows."""
    flat, n, d = _flatten(points)
    buf, ptr, _ = _doubles(flat)
    dim, lac = ctypes.c_double(), ctypes.c_double()
    _check(_lib.qvn_morphological_complexity(ptr, n, d, ctypes.byref(dim), ctypes.byref(lac)))
    return dim.value, lac.value


def vascular_network(nodes, edges, segment_lengths):
    """(mean tortuosity, branch points per unit length, dimension) of a 3-D graph."""
    flat, n, d = _flatten(nodes)
    if d != 3:
        raise ValueError("vascular nodes must be 3-D")
    nb, np_, _ = _doubles(flat)
    eb, ep, ne = _u64s(x for e in edges for x in e)
    lb, lp, m = _doubles(segment_lengths)
    if ne != 2 * m:
        raise ValueError("one segment length per edge")
    t, b, dd = ctypes.c_double(), ctypes.c_double(), ctypes.c_double()
    _check(_lib.qvn_vascular_network(np_, n, ep, lp, m, ctypes.byref(t), ctypes.byref(b),
                                     ctypes.byref(dd)))
    return t.value, b.value, dd.value


def cortical_folding(vertices, triangles):
    """(surface area, convex hull area, ratio) of a 3-D triangle mesh."""
    flat, n, d = _flatten(vertices)
    if d != 3:
        raise ValueError("vertices must be 3-D")
    vb, vp, _ = _doubles(flat)
    tb, tp, nt = _u64s(x for tri in triangles for x in tri)
    a, h, r = ctypes.c_double(), ctypes.c_double(), ctypes.c_double()
    _check(_lib.qvn_cortical_folding(vp, n, tp, nt // 3, ctypes.byref(a), ctypes.byref(h),
                                     ctypes.byref(r)))
    return a.value, h.value, r.value


def nerve_plexus_metric(nodes, edges):
    """(length density, branch-point density, dimension) of a graph in any dimension."""
    flat, n, d = _flatten(nodes)
    nb, np_, _ = _doubles(flat)
    eb, ep, ne = _u64s(x for e in edges for x in e)
    a, b, c = ctypes.c_double(), ctypes.c_double(), ctypes.c_double()
    _check(_lib.qvn_nerve_plexus_metric(np_, n, d, ep, ne // 2, ctypes.byref(a),
                                        ctypes.byref(b), ctypes.byref(c)))
    return a.value, b.value, c.value


def optimize_portfolio(expected_returns, covariance, k, seed=0, opposition=False,
                       walk_mode=0):
    """(weights, return/risk ratio) of long-only weights on exactly k assets."""
    rb, rp, n = _doubles(expected_returns)
    flat, rows, cols = _flatten(covariance)
    if rows * cols != n * n:
        raise ValueError("covariance must be %d x %d" % (n, n))
    cb, cp, _ = _doubles(flat)
    w = array("d", bytes(8 * n))
    sharpe = ctypes.c_double()
    _check(_lib.qvn_optimize_portfolio_ex(rp, cp, n, int(k), int(seed), int(bool(opposition)),
                                          int(walk_mode), ctypes.cast(w.buffer_info()[0], _dp),
                                          ctypes.byref(sharpe)))
    return w.tolist(), sharpe.value


del _n
