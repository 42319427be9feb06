from setuptools import setup

setup(cffi_modules=["native/build.py:builder"])
