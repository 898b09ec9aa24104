import gc

import numpy as np
import pytest

import kvxpx


def rows(*r):
    return np.array(r, np.float32)


def test_template_store_scores_and_best_label():
    with kvxpx.TemplateStore() as store:
        store.add("ramp", rows([0], [3]))
        store.add("flat", rows([3], [3], [3]))
        test = rows([0], [1], [2], [3])
        m = store.match(test)
        assert m.scores[0] == 2.0 and m.label == "ramp" and m.index == 0 and m.score == 2.0
        l2 = store.match(test, metric="l2")
        assert l2.scores[1] > l2.scores[0]
        # A template of another vector length is never eligible.
        store.add("wide", np.zeros((4, 2), np.float32))
        assert store.match(test).scores[2] >= 3.4e38
        with pytest.raises(ValueError, match="metric"):
            store.match(test, metric="cosine")
    with kvxpx.TemplateStore([("p", rows([5], [0], [1], [2]))]) as late:
        assert late.match(test).score == 6.0
        # Relaxed end points: the path may start at the template's second vector.
        assert late.match(test, end="relaxed", end_range=1).score == 1.0
    assert store.match is not None and len(store) == 0


def test_template_store_releases_its_ids():
    before = kvxpx._kvxpx._pattern_count()
    store = kvxpx.TemplateStore([(str(k), np.full((5, 3), k, np.float32)) for k in range(4)])
    assert kvxpx._kvxpx._pattern_count() == before + 4
    assert store.match(np.full((6, 3), 2.2, np.float32)).label == "2"
    del store
    gc.collect()
    assert kvxpx._kvxpx._pattern_count() == before
    empty = kvxpx.TemplateStore()
    assert empty.match(np.zeros((3, 3), np.float32)).label is None


def mixture_reference(w, means, x, inv_var=None, inv_cov=None):
    total = 0.0
    for k in range(len(w)):
        d = x.astype(np.float64) - means[k]
        q = d @ np.diag(inv_var[k]) @ d if inv_cov is None else d @ inv_cov[k] @ d
        total += w[k] * np.exp(-0.5 * q)
    return total


def test_gaussian_mixtures_against_the_formula():
    rng = np.random.default_rng(5)
    w = np.array([0.3, 0.7], np.float32)
    means = rng.standard_normal((2, 3)).astype(np.float32)
    inv_var = rng.uniform(0.5, 2.0, (2, 3)).astype(np.float32)
    a = rng.standard_normal((2, 3, 3))
    inv_cov = (np.einsum("kij,klj->kil", a, a) + np.eye(3)).astype(np.float32)
    x = rng.standard_normal((5, 3)).astype(np.float32)
    with kvxpx.GaussianMixture(w, means, inv_var=inv_var) as diag:
        got = diag.evaluate(x)
        np.testing.assert_allclose(got, [mixture_reference(w, means, v, inv_var=inv_var) for v in x], rtol=1e-6)
        assert diag.evaluate(x[0]) == got[0]
    full = kvxpx.GaussianMixture(w, means, inv_cov=inv_cov)
    # The library reads the lower triangle; a symmetric matrix gives the full form.
    np.testing.assert_allclose(full.evaluate(x), [mixture_reference(w, means, v, inv_cov=inv_cov) for v in x],
                               rtol=1e-5)
    with pytest.raises(ValueError, match="exactly one"):
        kvxpx.GaussianMixture(w, means)
    with pytest.raises(kvxpx.BadArgument, match="n<=0"):
        kvxpx.GaussianMixture(np.ones(1, np.float32), np.zeros((1, 0), np.float32), inv_var=np.zeros((1, 0), np.float32))


def viterbi_reference(a, pi, out_cost):
    """Least path cost, out_cost[t, j] the cost of observation t in state j."""
    delta = pi + out_cost[0]
    for t in range(1, out_cost.shape[0]):
        delta = (delta[:, None] + a).min(axis=0) + out_cost[t]
    return delta.min()


def random_costs(rng, *shape):
    return rng.uniform(0.1, 3.0, shape).astype(np.float32)


def test_discrete_hmms_and_classes_against_a_reference():
    rng = np.random.default_rng(11)
    models, refs = [], []
    obs = rng.integers(0, 4, 12).astype(np.int32)
    for _ in range(3):
        a, b, pi = random_costs(rng, 3, 3), random_costs(rng, 3, 4), random_costs(rng, 3)
        models.append(kvxpx.DiscreteHMM(a, b, pi))
        refs.append(viterbi_reference(a.astype(np.float64), pi, b[:, obs].T.astype(np.float64)))
    for m, ref in zip(models, refs):
        assert m.viterbi(obs) == pytest.approx(ref, rel=1e-5)
    with kvxpx.HMMClass(models) as cls:
        cost, best = cls.viterbi(obs)
        assert best is models[int(np.argmin(refs))] and cost == pytest.approx(min(refs), rel=1e-5)
    with pytest.raises(kvxpx.Error):
        kvxpx.DiscreteHMM(a, b, pi, costs=False).viterbi(obs)  # probabilities are refused when scoring


def test_continuous_hmm_uses_minus_log10_of_its_mixtures():
    rng = np.random.default_rng(2)
    states = 3
    mixtures = [kvxpx.GaussianMixture(np.ones(1, np.float32), rng.standard_normal((1, 2)).astype(np.float32),
                                      inv_var=np.ones((1, 2), np.float32)) for _ in range(states)]
    a, pi = random_costs(rng, states, states), random_costs(rng, states)
    frames = rng.standard_normal((7, 2)).astype(np.float32)
    out = np.array([[-np.log10(m.evaluate(f)) for m in mixtures] for f in frames])
    with kvxpx.ContinuousHMM(a, pi, mixtures) as hmm:
        assert hmm.viterbi(frames) == pytest.approx(viterbi_reference(a.astype(np.float64), pi, out), rel=1e-5)
        with pytest.raises(ValueError, match="used by an open HMM"):
            mixtures[0].close()
    mixtures[0].close()
    collected = kvxpx.ContinuousHMM(a, pi, mixtures[1:] + mixtures[1:2])
    del collected
    gc.collect()
    mixtures[1].close()  # a collected HMM no longer holds its mixtures


def test_hmm_ids_are_released():
    rng = np.random.default_rng(1)
    a, b, pi = random_costs(rng, 2, 2), random_costs(rng, 2, 2), random_costs(rng, 2)
    first = kvxpx.DiscreteHMM(a, b, pi)
    taken = first.id
    first.close()
    with pytest.raises(ValueError, match="closed"):
        first.viterbi(np.zeros(3, np.int32))
    second = kvxpx.DiscreteHMM(a, b, pi)
    assert second.id == taken  # the smallest free id again
    del second
    gc.collect()
    assert kvxpx.DiscreteHMM(a, b, pi).id == taken
