"""From a photograph to descriptors of the faces on it.

    pip install ".[faces]" scikit-image
    python examples/photograph.py

The weights are random, since none that were trained are part of facezoo. The detector is a trained one and finds
the face, but the landmarks lie anywhere, and the descriptor means nothing: what the example shows is the way.
"""
from tempfile import TemporaryDirectory

import facezoo
import skimage.data
from facezoo import faces, weights

photograph = skimage.data.astronaut()  # uint8 (512, 512, 3): red, green and blue
with TemporaryDirectory() as folder:
    for name in "FANet", "LCNN29":
        weights.synthesize(name, f"{folder}/{name}")
    with facezoo.FANet(f"{folder}/FANet") as locator, facezoo.LCNN29(f"{folder}/LCNN29") as describer:
        for found in faces.detect(photograph):
            box = faces.square(found, margin=0.2)
            cropped = faces.crop(photograph, box, (locator.width, locator.height))
            points = faces.landmarks(locator(cropped[None])[0], box, layout="xyxy", scale=locator.width)
            aligned = faces.align(photograph, points, (describer.width, describer.height))
            descriptor = describer(aligned[None])[0]
            print(f"face at {found.left:.0f}, {found.top:.0f}, {found.width:.0f} pixels wide; "
                  f"{len(points)} landmarks; descriptor of {len(descriptor)} values")
