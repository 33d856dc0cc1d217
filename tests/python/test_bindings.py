"""Tests of the Python bindings against the built shared library."""
import math
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python"))
import quorvane  # noqa: E402


class SearchTest(unittest.TestCase):
    def test_worked_example_document(self):
        with quorvane.Context() as ctx:
            doc = ctx.search([1, 0], [[1, 0], [0, 1], [1, 1]], k=2)
        self.assertEqual(doc["dim"], 2)
        self.assertEqual(doc["n_corpus"], 3)
        self.assertEqual(doc["best_point"], [1, 0])
        self.assertEqual([e["idx"] for e in doc["top_k"]], [0, 2])
        self.assertAlmostEqual(doc["top_k"][1]["dist"], 1 - math.sqrt(0.5), places=15)

    def test_text_and_array_entry_points_agree(self):
        rows = [[0.5, -1.0, 2.0], [1.0, 1.0, 1.0], [-3.0, 0.25, 0.0], [2.0, -2.0, 4.0]]
        text = ";".join(",".join(repr(x) for x in r) for r in rows)
        with quorvane.Context() as ctx:
            a = ctx.search([1, -1, 2], rows, k=3)
            b = ctx.search_text("[1 -1 2]", text, k=3)
        self.assertEqual(a, b)
        self.assertEqual(a["top_k"][0]["idx"], 3)  # (2,-2,4) is parallel to the query

    def test_errors_carry_status_and_message(self):
        with quorvane.Context() as ctx:
            with self.assertRaises(quorvane.QuorvaneError) as cm:
                ctx.search_text("1,x", "1,2")
            self.assertEqual(cm.exception.status, -2)
            self.assertIn("invalid number near 'x'", cm.exception.message)
            with self.assertRaises(quorvane.QuorvaneError) as cm:
                ctx.search([1, 2], [[1, 2, 3]])
            self.assertEqual(cm.exception.status, -3)
            with self.assertRaises(quorvane.QuorvaneError) as cm:
                ctx.search([1, 2], [[1, 2]], iterations=0)
            self.assertEqual(cm.exception.status, -1)
            self.assertIn("params out of range", cm.exception.message)

    def test_optimizer_path_is_deterministic_for_a_seed(self):
        with quorvane.Context() as ctx:
            a = ctx.search([0.3, -0.7], no_corpus=True, seed=5, iterations=10)
            b = ctx.search([0.3, -0.7], no_corpus=True, seed=5, iterations=10)
        self.assertEqual(a, b)
        self.assertTrue(all(-1 <= x <= 1 for x in a["best_point"]))

    def test_negative_feedback_moves_the_best_point(self):
        rows = [[1.0, 0.0], [0.9, 0.1], [0.0, 1.0]]
        with quorvane.Context(ostrany=True) as ctx:
            ctx.diversify_enable()
            first = ctx.search([1, 0], rows, k=2)
            self.assertEqual(first["best_point"], [1.0, 0.0])
            ctx.feedback(first["top_k"][0]["idx"], quorvane.FEEDBACK_NEGATIVE)
            second = ctx.search([1, 0], rows, k=2)
            self.assertNotEqual(second["best_point"], [1.0, 0.0])
            self.assertTrue(math.isnan(ctx.overhead_p99_us))


class ContextFreeTest(unittest.TestCase):
    def test_identity(self):
        self.assertEqual(quorvane.version(), "2.0.0")
        self.assertEqual(quorvane.abi_version(), quorvane.version())
        self.assertEqual(quorvane.edition(), "Ambrel")

    def test_vector_kernels(self):
        self.assertEqual(quorvane.vector_dot([1e8, 1, -1e8, 1], [1, 1, 1, 1]), 1.0)
        self.assertEqual(quorvane.vector_norm([3, 4]), 5.0)
        self.assertEqual(quorvane.vector_add([1, 2], [3, 4]), [4.0, 6.0])
        self.assertEqual(quorvane.vector_cosine_distance([0, 0], [1, 1]), 1.0)
        with self.assertRaises(quorvane.QuorvaneError):
            quorvane.vector_norm([])

    def test_two_clusters(self):
        pts = [[0, 0]] * 4 + [[1, 0]] * 4
        dim, lac = quorvane.morphological_complexity(pts)
        self.assertAlmostEqual(dim, 0.0, places=12)
        self.assertAlmostEqual(lac, 64.5, places=9)

    def test_portfolio_holds_exactly_k_assets(self):
        ret = [0.05, 0.10, 0.02, 0.08]
        cov = [[0.04, 0, 0, 0], [0, 0.09, 0, 0], [0, 0, 0.01, 0], [0, 0, 0, 0.05]]
        w1, s1 = quorvane.optimize_portfolio(ret, cov, k=2, seed=7)
        w2, s2 = quorvane.optimize_portfolio(ret, cov, k=2, seed=7)
        self.assertEqual((w1, s1), (w2, s2))
        self.assertEqual(sum(1 for w in w1 if w != 0.0), 2)
        self.assertAlmostEqual(sum(w1), 1.0, places=12)


if __name__ == "__main__":
    unittest.main()
