"""One wheel for every interpreter: the package has no extension module, only libraries beside it."""
import os

from setuptools import setup
from wheel.bdist_wheel import bdist_wheel


class PlatformWheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = False

    def get_tag(self):
        return "py3", "none", os.environ.get("ZORV_WHEEL_PLATFORM") or super().get_tag()[2]


setup(version=os.environ.get("ZORV_WHEEL_VERSION", "0"), cmdclass={"bdist_wheel": PlatformWheel})
